#include "request.h"

#include <limits>

namespace {

class Cursor {
public:
    explicit Cursor(std::string_view text) : text_(text) {}

    void skipBlanks() {
        while (pos_ < text_.size() && isBlank(text_[pos_])) ++pos_;
    }
    // Takes TOKEN (after blanks) if it comes next.
    bool take(std::string_view token) {
        skipBlanks();
        if (text_.substr(pos_, token.size()) != token) return false;
        pos_ += token.size();
        return true;
    }
    // Decimal digits without sign; nullopt on none or overflow.
    std::optional<uint64_t> number() {
        skipBlanks();
        size_t start = pos_;
        uint64_t value = 0;
        constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
        while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') {
            auto digit = static_cast<uint64_t>(text_[pos_] - '0');
            if (value > (kMax - digit) / 10) return std::nullopt;
            value = value * 10 + digit;
            ++pos_;
        }
        if (pos_ == start) return std::nullopt;
        return value;
    }
    bool atEnd() {
        skipBlanks();
        return pos_ == text_.size();
    }

private:
    static bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }
    std::string_view text_;
    size_t pos_ = 0;
};

}  // namespace

std::optional<SubscriberRequest> parseRequest(std::string_view line) {
    if (line.size() > kMaxRequestLine) return std::nullopt;
    Cursor cursor(line);
    if (!cursor.take("{")) return std::nullopt;
    SubscriberRequest request;
    if (cursor.take("\"since\"")) {
        if (!cursor.take(":")) return std::nullopt;
        request.since = cursor.number();
        if (!request.since) return std::nullopt;
    }
    if (!cursor.take("}") || !cursor.atEnd()) return std::nullopt;
    return request;
}
