#pragma once

#include <string>
#include <utility>
#include <vector>

#include "foundation/LogMessages.h"

namespace QoWatchCtl {

// A log message read back by the watchdog's own catalogue: which message it is and its fields.
struct Recognised {
    const QoLog::SMessage* pMessage = nullptr;  // null for a message the catalogue does not hold
    std::vector<std::pair<std::string, std::string>> fields;

    bool Is(QoLog::EMsg eId) const { return pMessage != nullptr && pMessage->eId == eId; }
    // A field's text; empty when the message has no such field.
    std::string Text(const char* pszName) const;
    // A number field's value; fallback when there is none.
    long long Number(const char* pszName, long long fallback = -1) const;
};

enum class EMatch { KNOWN, UNKNOWN, TORN };

// Which message of the catalogue the text is, at the line's level. TORN: the text is the start of a
// message with fields that ends before the message does (a line cut short).
EMatch Recognise(const std::string& text, bool bError, Recognised& out);

}  // namespace QoWatchCtl
