#ifndef ZOLCTL_OUTPUT_H
#define ZOLCTL_OUTPUT_H

#include <Poco/Dynamic/Var.h>

#include <string>
#include <vector>

/// What goes to stdout and stderr, and how it looks: tables, colours and indentation on a terminal alone,
/// colours not even there when the environment has NO_COLOR (https://no-color.org). Texts may come from a
/// peer: control characters and invalid UTF-8 in them are escaped, on pipes as well; what is JSON keeps its
/// value (see <Logging/Escaped.h>).
namespace ZolCtl::Output {

enum class Colour { Red = 31, Green = 32, Yellow = 33, Bold = 1 };

/// JSON on stdout: indented on a terminal, else one compact line.
void json(const Poco::Dynamic::Var& value);
/// One compact line in any case.
void jsonLine(const Poco::Dynamic::Var& value);

/// The cells of a line. A tab in one is escaped too.
using Row = std::vector<std::string>;
/// One line, cells separated by tabs; the first one in a colour, if stdout shows colours.
void row(Colour colour, const Row& cells);
/// On a terminal a table in columns under `header`, else one line a row, cells separated by tabs, no header.
void table(const Row& header, const std::vector<Row>& rows);

/// @throws Failure when nobody reads stdout any more
void checkReader();

/// A line on stderr, behind the program's name.
void notice(const std::string& text);

}  // namespace ZolCtl::Output

#endif
