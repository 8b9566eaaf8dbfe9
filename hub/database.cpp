#include "hub/database.h"

#include <algorithm>
#include <cstddef>

namespace ZARO::RelayHub {

namespace {

constexpr char kReplacement[] = "\xef\xbf\xbd"; // U+FFFD

bool IsTail(unsigned char c) {
    return (c & 0xc0) == 0x80;
}

/// The length of the character at `at`, 0 when none that may be kept begins there.
std::size_t LengthAt(const std::string& text, std::size_t at) {
    const auto byte = [&text](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const unsigned first = byte(at);
    const unsigned second = byte(at + 1);
    if (first < 0x80) {
        return first == 0 ? 0 : 1;
    }
    if (first >= 0xc2 && first < 0xe0) {
        return IsTail(static_cast<unsigned char>(second)) ? 2 : 0;
    }
    // Overlong forms, surrogates and what lies above U+10FFFF are excluded by the second byte.
    const unsigned low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
    const unsigned high = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
    const std::size_t length = first < 0xe0 ? 0 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
    bool good = length != 0 && second >= low && second <= high;
    for (std::size_t i = 2; i < length; ++i) {
        good = good && IsTail(static_cast<unsigned char>(byte(at + i)));
    }
    return good ? length : 0;
}

} // namespace

std::string ValidText(const std::string& text) {
    if (std::all_of(text.begin(), text.end(), [](char c) { return c > 0; })) {
        return text;
    }
    std::string valid;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = LengthAt(text, at);
        valid += length == 0 ? kReplacement : text.substr(at, length);
        at += std::max<std::size_t>(length, 1);
    }
    return valid;
}

std::string Summary(const char* sql) {
    const std::string whole(sql);
    return whole.substr(0, whole.find_first_of(";(\n"));
}

void Query::Run() {
    while (Next()) {
    }
}

Transaction::~Transaction() {
    if (open_) {
        try {
            database_.Rollback();
        } catch (const std::exception&) {
            // The engine has rolled back by itself already, or does so with the connection's end.
        }
    }
}

void Transaction::Commit() {
    database_.Commit();
    open_ = false;
}

} // namespace ZARO::RelayHub
