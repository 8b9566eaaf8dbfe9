/// The password side of the SSH client: the program answers the one question that the stock client
/// may ask, from the password file, through a pipe that nobody else can read.
#pragma once

#include <string>

namespace ZARO::Platform {

/// Environment variables that carry the password file's name and the log-in name to the helper.
constexpr char kPasswordFileVariable[] = "ZARO_SSH_PASSWORD_FILE";
constexpr char kUserVariable[] = "ZARO_SSH_USER";

/// Reads a password file: regular, no link, this user's own and closed to everybody else, with one
/// line of 1 to 4096 bytes. Gives what is wrong with it, or NULL.
const char* ReadPassword(const char* file, std::string& password);

/// Prints the password as the answer to `prompt`. Returns the helper's exit status: 1, with nothing
/// printed, when the prompt is not for this log-in's password.
int AnswerPrompt(const std::string& prompt);

} // namespace ZARO::Platform
