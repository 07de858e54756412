#ifndef ZOLCTL_OUTPUT_H
#define ZOLCTL_OUTPUT_H

#include <Poco/Dynamic/Var.h>

#include <string>
#include <vector>

/// What goes to stdout and stderr, and how it looks: tables, colours and indentation on a terminal alone,
/// colours not even there when the environment has NO_COLOR (https://no-color.org).
namespace ZolCtl::Output {

enum class Colour { Red = 31, Green = 32, Yellow = 33, Bold = 1 };

/// `text` in a colour, if stdout shows colours.
std::string coloured(const std::string& text, Colour colour);

/// A line on stdout, flushed.
void line(const std::string& text);

/// JSON on stdout: indented on a terminal, else one compact line.
void json(const Poco::Dynamic::Var& value);
/// One compact line in any case.
void jsonLine(const Poco::Dynamic::Var& value);

using Row = std::vector<std::string>;
/// On a terminal a table in columns under `header`, else one line a row, cells separated by tabs, no header.
void table(const Row& header, const std::vector<Row>& rows);

/// @throws Failure when nobody reads stdout any more
void checkReader();

/// A line on stderr, behind the program's name.
void notice(const std::string& text);

}  // namespace ZolCtl::Output

#endif
