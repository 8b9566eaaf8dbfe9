/// A tunnel object: nothing in it breaks out of the quotes in the shell command, moves a file to
/// another folder or, once checked, looks like an option.
#include "base/json.h"
#include "base/paths.h"
#include "tests/fuzz/fuzz.h"
#include "tunnel/ssh_command.h"

void Fuzz(const std::string& input) {
    Json::Value object, all, again, checked;
    std::string user, host, why;
    (void)json::Parse(input, object);
    const Tunnel tunnel(object);
    assert(tunnel.Write(all, true) && Tunnel(all).Write(again, true) && again == all);
    const std::string name = ssh::AsFileName(tunnel.GetServiceId());
    assert(name.find_first_of(std::string("/\n\0", 3)) == std::string::npos);
    for (const std::string& file :
         {paths::PasswordFile(1, name), input.substr(0, input.find('\0'))}) {
        // Reads it as the shell does: within quotes a backslash escapes only a few characters.
        const std::string command = ssh::PidSearch(file);
        std::size_t at = command.find('"') + 1;
        for (; at < command.size() && command[at] != '"'; ++at) {
            assert(command[at] != '$' && command[at] != '`');
            at += command[at] == '\\' && std::string("$`\"\\\n").find(command[at + 1]) < 5;
        }
        assert(command.rfind("ps w | grep \"ssh -d ", 0) == 0 && at + 1 == command.size());
    }
    if (app::CheckTunnel(object, {tunnel.GetServiceConf()}, checked, why)) {
        assert(json::Get(checked, "relay_user", user) && json::Get(checked, "relay_ip", host));
        const std::string way = ssh::Client(name, {user, host, 1, 2}).Destination();
        assert(Tunnel(checked).IsValid() && way[0] != '-' && way.find('@') == way.rfind('@'));
        assert(way.find_first_of(std::string(" \t\r\n\0", 5)) == std::string::npos);
    }
}
