#include "ssh_password.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "base/read_file.h"

namespace ZARO::Platform {
namespace {

constexpr size_t kMaxPassword = 4096;

/// Whether the client asks for this log-in's password, and not for a new one, a yes or no, or the
/// password of another user on another host.
bool IsPasswordPrompt(std::string_view prompt) {
    constexpr std::string_view kEnd = "'s password: ";
    const char* user = getenv(kUserVariable);
    if (user == nullptr || getenv("SSH_ASKPASS_PROMPT") != nullptr) {
        return false;
    }
    const std::string begin = std::string(user) + "@";
    return prompt.size() > begin.size() + kEnd.size() && prompt.substr(0, begin.size()) == begin &&
           prompt.substr(prompt.size() - kEnd.size()) == kEnd;
}

} // namespace

const char* ReadPassword(const char* file, std::string& password) {
    FileText content;
    const Reading reading = ReadFile(file, content, Trust::Private, kMaxPassword);
    if (!content.opened) {
        return "can't open the password file";
    }
    const bool tooLong = reading == Reading::Unreadable && errno == EFBIG;
    if (reading != Reading::Done && !tooLong) {
        return "the password file must be a regular file of this user, closed to others";
    }
    password = content.text;
    if (password.empty()) {
        return "the password file must hold 1 to 4096 bytes";
    }
    const bool oneLine = password.find_first_of(std::string_view("\0\r\n", 3)) == password.npos;
    return oneLine ? nullptr : "the password file must hold one line without an end";
}

int AnswerPrompt(const std::string& prompt) {
    const char* file = getenv(kPasswordFileVariable);
    std::string answer;
    if (file == nullptr || !IsPasswordPrompt(prompt) || ReadPassword(file, answer) != nullptr) {
        return 1;
    }
    answer += '\n';
    // A pipe takes this much in one piece.
    const ssize_t written = write(STDOUT_FILENO, answer.data(), answer.size());
    return written == static_cast<ssize_t>(answer.size()) ? 0 : 1;
}

} // namespace ZARO::Platform
