/// Foreign texts made fit to be shown.
#pragma once

#include <string>

namespace ZARO {

/// A foreign text for a message: at most 64 bytes of it, with "?" for all but printable ASCII.
std::string Printable(const std::string& text);

/// Whether a text is the same when made printable: short, and of printable ASCII.
bool IsPrintable(const std::string& text);

/// A text with "?" for each control character but tabs, whole and without a limit. Where it ends
/// its line, it may have a newline at its own end, as serialised JSON does. Copies only what it
/// changes, so the text must live as long. Never throws.
class Harmless {
public:
    explicit Harmless(const char* text, bool endsLine = false) noexcept;
    Harmless(const Harmless&) = delete;
    Harmless& operator=(const Harmless&) = delete;
    /// Null for a null text; "?" when memory ran out.
    const char* Value() const { return text_; }

private:
    const char* text_;
    std::string copy_;
};

} // namespace ZARO
