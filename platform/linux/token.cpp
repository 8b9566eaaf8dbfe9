#include "common.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>

#include "base/ascii.h"
#include "base/paths.h"
#include "base/read_file.h"
#include "base/replace_file.h"
#include "lines.h"
#include "number.h"

namespace ZARO::Platform {
namespace {

constexpr size_t kMaxKeyFile = 4096;
constexpr size_t kSecretSize = 32;
constexpr size_t kSerialSize = 20; // 100 random bits: no two devices share one
constexpr size_t kMaxSerialSize = 35;
constexpr size_t kTokenSize = 32;
// Without letters that look like digits; a power of two, so that each is equally likely.
constexpr std::string_view kSerialAlphabet = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
static_assert(kSerialAlphabet.size() == 32);

using Secret = std::array<unsigned char, kSecretSize>;

/// What the device is to the control server. The secret never leaves its file.
struct Identity {
    std::string serial;
    Secret secret{};
};

template <typename Bytes> std::string ToHex(const Bytes& bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

bool ParseSecret(std::string_view text, Secret& secret) {
    if (text.size() != kSecretSize * 2) {
        return false;
    }
    for (size_t i = 0; i < kSecretSize; ++i) {
        if (!ParseNumber(text.substr(i * 2, 2), 16, secret[i])) {
            return false;
        }
    }
    return true;
}

bool IsSerial(std::string_view text) {
    return !text.empty() && text.size() <= kMaxSerialSize &&
           std::all_of(text.begin(), text.end(), [](char c) { return IsUpper(c) || IsDigit(c); });
}

/// Reads the key file; ENOENT when the device has none yet, EBADMSG when it is damaged.
int ReadIdentity(const std::string& path, Identity& identity) {
    FileText file;
    if (ReadFile(path, file, Trust::NoLink, kMaxKeyFile) != Reading::Done) {
        return errno;
    }
    if ((file.mode & 077) != 0 && chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0) {
        return errno;
    }
    identity.serial = FindValue(file.text, "serial").value_or("");
    const bool whole = IsSerial(identity.serial) &&
                       ParseSecret(FindValue(file.text, "secret").value_or(""), identity.secret);
    return whole ? 0 : EBADMSG;
}

int DrawIdentity(Identity& identity) {
    std::array<unsigned char, kSerialSize> random{};
    if (getentropy(random.data(), random.size()) != 0 ||
        getentropy(identity.secret.data(), identity.secret.size()) != 0) {
        return errno;
    }
    for (const unsigned char byte : random) {
        identity.serial += kSerialAlphabet[byte % kSerialAlphabet.size()];
    }
    return 0;
}

/// Makes the device's identity. Of several processes that do so at once the first wins.
int MakeIdentity(const std::string& path) {
    Identity identity;
    if (const int error = DrawIdentity(identity)) {
        return error;
    }
    const std::string text =
        "serial=\"" + identity.serial + "\"\nsecret=\"" + ToHex(identity.secret) + "\"\n";
    NewFile kind;
    kind.needsMode = false;
    kind.onlyIfMissing = true;
    return ReplaceFile(path, text, kind) == Replaced::Done ? 0 : errno;
}

int LoadIdentity(Identity& identity) {
    const std::string path = paths::DeviceKeyFile();
    RemoveLeftNewFiles(path); // here, since there may never be another writer
    int error = ReadIdentity(path, identity);
    if (error == ENOENT) {
        error = MakeIdentity(path);
        if (error == 0) {
            error = ReadIdentity(path, identity);
        }
    }
    return error;
}

int MakeToken(const Secret& secret, std::string_view serial, std::string& token) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    if (HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
             reinterpret_cast<const unsigned char*>(serial.data()), serial.size(), digest.data(),
             &size) == nullptr) {
        return EIO;
    }
    token = ToHex(digest).substr(0, kTokenSize);
    return 0;
}

} // namespace
} // namespace ZARO::Platform

using namespace ZARO::Platform;

int ZAROWstokenGetToken(char* serial, int cbSerial, char* token, int cbToken) {
    return Guard([&] {
        if (serial == nullptr || token == nullptr) {
            return Fail(EINVAL);
        }
        Identity identity;
        std::string text;
        int error = LoadIdentity(identity);
        if (error == 0) {
            error = MakeToken(identity.secret, identity.serial, text);
        }
        if (error == 0 && (!Fits(identity.serial, cbSerial) || !Fits(text, cbToken))) {
            error = ERANGE;
        }
        if (error != 0) {
            return Fail(error);
        }
        CopyCut(identity.serial, serial, cbSerial);
        CopyCut(text, token, cbToken);
        return 0;
    });
}

int ZAROWstokenGenerateToken(const char* serial, char* token, int cbToken) {
    return Guard([&] {
        if (serial == nullptr || *serial == '\0' || token == nullptr) {
            return Fail(EINVAL);
        }
        Identity identity;
        std::string text;
        int error = LoadIdentity(identity);
        if (error == 0) {
            error = MakeToken(identity.secret, serial, text);
        }
        if (error == 0) {
            error = CopyWhole(text, token, cbToken);
        }
        return error == 0 ? 0 : Fail(error);
    });
}
