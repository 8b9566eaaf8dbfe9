/// What people read: foreign texts made harmless, columns, colours, times.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ZARO::Relay::ctl {

/// A foreign text of at most `columns` columns that does nothing to a terminal: whatever takes up
/// no room of its own (control characters, escape sequences, marks that turn the direction) or is
/// no text in the user's locale becomes "?".
std::string Clean(const std::string& text, std::size_t columns = 64);

/// Room that a cleaned text takes up on a terminal.
std::size_t Columns(const std::string& clean);

enum class Tone { Plain, Good, Warning, Bad, Faint };

struct Cell {
    std::string text; ///< cleaned
    Tone tone = Tone::Plain;
};

/// Rows with their cells below each other, two blanks between columns, a newline behind each row.
/// Without `colour` there is no escape sequence in it.
std::string Layout(const std::vector<std::vector<Cell>>& rows, bool colour);

/// A host and a port as a URL has them: an IPv6 address is put in brackets.
std::string HostAndPort(const std::string& host, int port);

/// Whether standard output is a terminal, and one whose user wants colours.
bool IsTerminal();
bool WantsColour();

/// "3 s", "5 min", "2 h 10 min", "4 days"; "0 s" for a negative one.
std::string Duration(std::int64_t seconds);

/// A point in time in the local time zone; "?" for one that no calendar has.
std::string DateAndTime(std::int64_t time);

} // namespace ZARO::Relay::ctl
