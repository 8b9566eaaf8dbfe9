#include "hub/secret.h"

#include <sys/random.h>

#include <array>

#include <openssl/crypto.h>
#include <openssl/sha.h>

namespace ZARO::RelayHub {

std::string RandomText(std::size_t length, std::string_view letters) {
    // Bytes from this value on are dropped, so that all letters are equally likely.
    const std::size_t fair = 256 / letters.size() * letters.size();
    std::string text;
    while (text.size() < length) {
        std::array<unsigned char, 64> bytes{};
        const ssize_t got = getrandom(bytes.data(), bytes.size(), 0);
        for (ssize_t i = 0; i < got && text.size() < length; ++i) {
            const std::size_t byte = bytes[static_cast<std::size_t>(i)];
            if (byte < fair) {
                text += letters[byte % letters.size()];
            }
        }
    }
    return text;
}

std::string Sha256(std::string_view text) {
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string hex;
    for (const unsigned char byte : digest) {
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 15];
    }
    return hex;
}

bool EqualSecrets(const std::string& left, const std::string& right) {
    const std::string a = Sha256(left);
    const std::string b = Sha256(right);
    return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

} // namespace ZARO::RelayHub
