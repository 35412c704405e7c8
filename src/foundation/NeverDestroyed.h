#pragma once

#include <new>

#include <boost/noncopyable.hpp>

// Holds a T that is built with the holder and never destroyed. Process-wide objects that monitor
// threads use (the log, its lock, the launch and singleton locks) are held so: when the entry
// returns early while threads still run, the C runtime's exit must not destroy them under those
// threads.
template <class T>
class CNeverDestroyed : private boost::noncopyable {
public:
    CNeverDestroyed() { new (m_storage) T(); }

    T& Get() { return *std::launder(reinterpret_cast<T*>(m_storage)); }

private:
    alignas(T) unsigned char m_storage[sizeof(T)];
};
