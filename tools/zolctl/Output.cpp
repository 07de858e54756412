#include "Output.h"

#include <Logging/Escaped.h>
#include <Poco/JSON/Stringifier.h>
#include <Poco/String.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <sstream>

#include "Command.h"

namespace ZolCtl::Output {

namespace {

constexpr unsigned INDENT = 2;
constexpr std::size_t GAP = 2;

bool onTerminal() {
    static const bool is = ::isatty(STDOUT_FILENO) == 1;
    return is;
}

bool showsColours() {
    const char* refused = std::getenv("NO_COLOR");
    return onTerminal() && (refused == nullptr || *refused == '\0');
}

/// `text` in a colour, if stdout shows colours.
std::string coloured(const std::string& text, Colour colour) {
    if (!showsColours()) return text;
    return "\033[" + std::to_string(static_cast<int>(colour)) + "m" + text + "\033[0m";
}

/// A line on stdout, flushed.
void line(const std::string& text) {
    std::cout << text << std::endl;
}

// POCO escapes the control characters of ASCII, no others.
std::string toText(const Poco::Dynamic::Var& value, unsigned indent) {
    std::ostringstream text;
    Poco::JSON::Stringifier::stringify(value, text, indent);
    return Logging::escapedJson(text.str());
}

Row escaped(const Row& cells) {
    Row made;
    for (const auto& cell : cells) made.push_back(Poco::replace(Logging::escaped(cell), "\t", "\\t"));
    return made;
}

std::vector<std::size_t> widths(const std::vector<Row>& rows) {
    std::vector<std::size_t> widest(rows.front().size());
    for (const auto& row : rows)
        for (std::size_t column = 0; column < row.size(); ++column)
            widest[column] = std::max(widest[column], row[column].size());
    return widest;
}

std::string inColumns(const Row& row, const std::vector<std::size_t>& widths) {
    std::string text;
    for (std::size_t column = 0; column + 1 < row.size(); ++column)
        text += row[column] + std::string(widths[column] + GAP - row[column].size(), ' ');
    return text + row.back();
}

std::string withTabs(const Row& row) {
    std::string text = row.front();
    for (std::size_t column = 1; column < row.size(); ++column) text += "\t" + row[column];
    return text;
}

}  // namespace

void json(const Poco::Dynamic::Var& value) {
    line(toText(value, onTerminal() ? INDENT : 0));
}

void jsonLine(const Poco::Dynamic::Var& value) {
    line(toText(value, 0));
}

void row(Colour colour, const Row& cells) {
    Row shown = escaped(cells);
    shown.front() = coloured(shown.front(), colour);
    line(withTabs(shown));
}

void table(const Row& header, const std::vector<Row>& rows) {
    std::vector<Row> all{header};
    std::transform(rows.begin(), rows.end(), std::back_inserter(all), escaped);
    const auto columns = widths(all);
    if (onTerminal()) line(coloured(inColumns(header, columns), Colour::Bold));
    for (auto shown = all.begin() + 1; shown != all.end(); ++shown)
        line(onTerminal() ? inColumns(*shown, columns) : withTabs(*shown));
}

void checkReader() {
    if (!std::cout) throw Failure("nobody reads the output");
}

void notice(const std::string& text) {
    std::cerr << "zolctl: " << Logging::escaped(text) << std::endl;
}

}  // namespace ZolCtl::Output
