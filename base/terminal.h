/// Output for people: foreign texts made harmless, columns, colours, times.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ZARO {

/// Makes a foreign text harmless for a terminal and cuts it to `columns`. Characters of no width
/// (control characters, escape sequences, marks that change the direction) become "?", and so does
/// what the user's locale can't decode.
std::string Clean(const std::string& text, std::size_t columns = 64);

/// The width of a cleaned text on a terminal.
std::size_t Columns(const std::string& clean);

enum class Tone { Plain, Good, Warning, Bad, Faint };

struct Cell {
    std::string text; ///< cleaned
    Tone tone = Tone::Plain;
};

/// A table: cells in aligned columns with two blanks between them, one line per row. Without
/// `colour` it has no escape sequences.
std::string Layout(const std::vector<std::vector<Cell>>& rows, bool colour);

/// A host and a port as a URL has them: an IPv6 address is put in brackets.
std::string HostAndPort(const std::string& host, int port);

/// Whether standard output is a terminal.
bool IsTerminal();

/// Whether it is one whose user wants colours.
bool WantsColour();

/// "3 s", "5 min", "2 h 10 min", "4 days"; "0 s" for less than nothing.
std::string Duration(std::int64_t seconds);

/// A time in the local time zone; "?" when it is out of the calendar's range.
std::string DateAndTime(std::int64_t time);

} // namespace ZARO
