#include "hub/host_key.h"

#include <optional>
#include <utility>

#include "hub/files.h"
#include "hub/log.h"

namespace ZARO::RelayHub {

namespace {

/// Only cheap ones, as strangers choose among them: others cost up to 0.3 s of CPU time each.
constexpr char kKeyExchanges[] =
    "curve25519-sha256,curve25519-sha256@libssh.org,ecdh-sha2-nistp256";

struct KeyFree {
    void operator()(ssh_key key) const { ssh_key_free(key); }
};
using HostKey = std::unique_ptr<ssh_key_struct, KeyFree>;

HostKey KeyFrom(const std::string& text) {
    ssh_key key = nullptr;
    if (ssh_pki_import_privkey_base64(text.c_str(), nullptr, nullptr, nullptr, &key) != SSH_OK) {
        return nullptr;
    }
    return HostKey(key);
}

/// A new key as text; "" when it can't be made.
std::string MakeHostKey() {
    ssh_key made = nullptr;
    char* exported = nullptr;
    if (ssh_pki_generate(SSH_KEYTYPE_ED25519, 0, &made) == SSH_OK) {
        (void)ssh_pki_export_privkey_base64(made, nullptr, nullptr, nullptr, &exported);
    }
    const HostKey owner(made);
    std::string text = exported == nullptr ? "" : exported;
    ssh_string_free_char(exported);
    return text;
}

} // namespace

bool LoadHostKey(const std::string& file, bool hasDevices, std::string& key, std::string& error) {
    std::optional<std::string> text;
    if (!ReadSmallFile(file, text, error)) {
        return false;
    }
    if (!text) {
        if (hasDevices) {
            Log(Level::Warning, "relay", "%s is gone: devices will refuse the new host key",
                file.c_str());
        }
        text = MakeHostKey();
        if (text->empty() || !WritePrivateFile(file, *text, error)) {
            error = error.empty() ? "can't make a host key" : error;
            return false;
        }
    }
    if (MakeSshBind(*text) == nullptr) {
        error = file + " holds no usable host key: put a copy back, or remove it for a new one, "
                       "which every device has to be told to accept";
        return false;
    }
    key = std::move(*text);
    return true;
}

SshBind MakeSshBind(const std::string& key) {
    SshBind bind(ssh_bind_new(), ssh_bind_free);
    HostKey owned = KeyFrom(key);
    const bool noFiles = false; // the settings of the machine's own SSH server don't apply here
    if (owned == nullptr || bind == nullptr ||
        ssh_bind_options_set(bind.get(), SSH_BIND_OPTIONS_PROCESS_CONFIG, &noFiles) != SSH_OK ||
        ssh_bind_options_set(bind.get(), SSH_BIND_OPTIONS_KEY_EXCHANGE, kKeyExchanges) != SSH_OK ||
        ssh_bind_options_set(bind.get(), SSH_BIND_OPTIONS_IMPORT_KEY, owned.get()) != SSH_OK) {
        return {nullptr, ssh_bind_free};
    }
    (void)owned.release(); // it belongs to `bind` now
    return bind;
}

} // namespace ZARO::RelayHub
