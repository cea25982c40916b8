#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <string_view>

namespace veltrane::kit {

// An immutable text whose copies share one buffer. A route trace repeats the
// same few reason texts for every rule it passes over; sharing them keeps
// the per-rule cost of a match to a reference count instead of an
// allocation and a copy.
class SharedText {
public:
    SharedText() = default;
    SharedText(std::string text) // NOLINT: a text is a shared text
        : text_(std::make_shared<const std::string>(std::move(text))) {}
    SharedText(const char* text) : SharedText(std::string(text)) {}

    const std::string& str() const {
        static const std::string empty;
        return text_ ? *text_ : empty;
    }
    operator const std::string&() const { return str(); }
    bool empty() const { return str().empty(); }

    friend bool operator==(const SharedText& a, const SharedText& b) {
        return a.text_ == b.text_ || a.str() == b.str();
    }
    friend bool operator==(const SharedText& a, std::string_view b) { return a.str() == b; }
    friend bool operator==(const SharedText& a, const char* b) { return a.str() == b; }
    friend std::string operator+(const std::string& a, const SharedText& b) { return a + b.str(); }
    friend std::string operator+(std::string&& a, const SharedText& b) {
        return std::move(a) + b.str();
    }
    friend std::ostream& operator<<(std::ostream& out, const SharedText& text) {
        return out << text.str();
    }

private:
    std::shared_ptr<const std::string> text_;
};

} // namespace veltrane::kit
