#include "ctl/Vocabulary.h"

#include <cstdlib>
#include <cstring>

namespace QoWatchCtl {
namespace {

enum class EWalk { MATCH, MISMATCH, ENDED };

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Matches text against one message's text; ENDED when the text ends inside a field or the literal
// that follows one.
EWalk Walk(const char* pattern, const std::string& text, Recognised& out) {
    size_t at = 0;
    bool bInField = false;
    for (const char* p = pattern; *p != '\0';) {
        if (*p != '{') {
            if (at == text.size()) {
                return bInField ? EWalk::ENDED : EWalk::MISMATCH;
            }
            if (text[at] != *p) {
                return EWalk::MISMATCH;
            }
            ++at;
            ++p;
            continue;
        }
        const char* close = std::strchr(p, '}');
        const std::string placeholder(p + 1, close);
        p = close + 1;
        const size_t colon = placeholder.find(':');
        const char kind = colon == std::string::npos ? 'd' : placeholder[colon + 1];
        bInField = true;
        size_t end = at;
        if (kind == 'd') {
            end += end < text.size() && text[end] == '-' ? 1 : 0;
            while (end < text.size() && IsDigit(text[end])) {
                ++end;
            }
            if (end == at || !IsDigit(text[end - 1])) {
                return end == text.size() ? EWalk::ENDED : EWalk::MISMATCH;
            }
        } else {
            // Text runs to the literal that follows; the last literal ends the message.
            const char* next = std::strchr(p, '{');
            const std::string literal = next == nullptr ? std::string(p) : std::string(p, next);
            if (literal.empty()) {
                end = text.size();
            } else if (next == nullptr) {
                if (text.size() < at + literal.size() ||
                    text.compare(text.size() - literal.size(), literal.size(), literal) != 0) {
                    return EWalk::ENDED;
                }
                end = text.size() - literal.size();
            } else {
                end = text.find(literal, at);
                if (end == std::string::npos) {
                    return EWalk::ENDED;
                }
            }
            if (kind == 'h' && (end == at || text.find(' ', at) < end)) {
                return EWalk::MISMATCH;
            }
        }
        out.fields.emplace_back(placeholder.substr(0, colon), text.substr(at, end - at));
        at = end;
    }
    return at == text.size() ? EWalk::MATCH : EWalk::MISMATCH;
}

}  // namespace

std::string Recognised::Text(const char* pszName) const {
    for (const auto& field : fields) {
        if (field.first == pszName) {
            return field.second;
        }
    }
    return std::string();
}

long long Recognised::Number(const char* pszName, long long fallback) const {
    const std::string text = Text(pszName);
    return text.empty() ? fallback : std::strtoll(text.c_str(), nullptr, 10);
}

EMatch Recognise(const std::string& text, bool bError, Recognised& out) {
    bool bTorn = false;
    for (const QoLog::SMessage& message : QoLog::MESSAGES) {
        Recognised attempt;
        const EWalk walk = Walk(message.pszText, text, attempt);
        if (walk == EWalk::MATCH && message.bError == bError) {
            attempt.pMessage = &message;
            out = attempt;
            return EMatch::KNOWN;
        }
        bTorn = bTorn || (walk == EWalk::ENDED && message.bError == bError);
    }
    out = Recognised();
    return bTorn ? EMatch::TORN : EMatch::UNKNOWN;
}

}  // namespace QoWatchCtl
