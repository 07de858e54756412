#include "Located.h"

#include <Poco/JSON/Parser.h>

#include <algorithm>
#include <cctype>

namespace ZolPlatform {

namespace {

/// The value of a JSON text of any kind, for which POCO's parser wants a container.
Poco::Dynamic::Var parseAny(const std::string& json) {
    return Poco::JSON::Parser().parse("[" + json + "]").extract<Poco::JSON::Array::Ptr>()->get(0);
}

}  // namespace

/// Reads one value after another from a JSON text, front to back.
class LocatedReader {
public:
    LocatedReader(const std::string& file, const std::string& text) : _file(file), _text(text) {}

    Located document() {
        Located root = value("");
        if (next() != '\0') fail("more text behind the end");
        return root;
    }

private:
    Located value(const std::string& path) {
        Located made;
        const char first = next();
        const std::size_t begin = _at;
        made._place = place() + (path.empty() ? "" : path + ": ");
        if (first == '{')
            object(made, path);
        else if (first == '[')
            array(made, path);
        else
            scalar();
        made._json = _text.substr(begin, _at - begin);
        return made;
    }

    void object(Located& made, const std::string& path) {
        made._kind = Located::Kind::Object;
        forEach('}', [&] {
            if (next() != '"') fail("a member's name is missing");
            const std::string name = parseAny(string()).toString();
            if (made.find(name)) fail("\"" + name + "\" is there twice");
            if (next() != ':') fail("':' is missing behind \"" + name + "\"");
            ++_at;
            made._members.emplace_back(name, value(path.empty() ? name : path + "." + name));
        });
    }

    void array(Located& made, const std::string& path) {
        made._kind = Located::Kind::Array;
        forEach(']',
                [&] { made._items.push_back(value(path + "[" + std::to_string(made._items.size()) + "]")); });
    }

    template <typename Read>
    void forEach(char end, const Read& read) {
        ++_at;
        if (next() != end) {
            read();
            while (next() == ',') {
                ++_at;
                read();
            }
        }
        if (next() != end) fail(std::string("',' or '") + end + "' is missing");
        ++_at;
    }

    void scalar() {
        const std::size_t begin = _at;
        if (next() == '"') {
            string();
            return;
        }
        while (_at < _text.size() && (std::isalnum(static_cast<unsigned char>(_text[_at])) != 0 ||
                                      std::string("+-.").find(_text[_at]) != std::string::npos))
            ++_at;
        check(_text.substr(begin, _at - begin));
    }

    std::string string() {
        const std::size_t begin = _at++;
        while (_at < _text.size() && _text[_at] != '"' && _text[_at] != '\n')
            _at += _text[_at] == '\\' ? 2 : 1;
        if (_at >= _text.size() || _text[_at] != '"') fail("the text has no end");
        ++_at;
        const std::string json = _text.substr(begin, _at - begin);
        check(json);
        return json;
    }

    void check(const std::string& json) const {
        try {
            if (json.empty()) fail("a value is missing");
            parseAny(json);
        } catch (const Poco::Exception&) {
            fail(json + " is no value");
        }
    }

    /// The character behind white space, 0 at the end.
    char next() {
        while (_at < _text.size() && std::isspace(static_cast<unsigned char>(_text[_at])) != 0) ++_at;
        return _at < _text.size() ? _text[_at] : '\0';
    }

    std::string place() const {
        const auto here = _text.begin() + static_cast<std::ptrdiff_t>(std::min(_at, _text.size()));
        return _file + ":" + std::to_string(1 + std::count(_text.begin(), here, '\n')) + ": ";
    }

    [[noreturn]] void fail(const std::string& what) const { throw DescriptionError(place() + what); }

    const std::string _file;
    const std::string _text;
    std::size_t _at = 0;
};

Located Located::parse(const std::string& file, const std::string& text) {
    return LocatedReader(file, text).document();
}

void Located::fail(const std::string& what) const {
    throw DescriptionError(_place + what);
}

const Located::Members& Located::members() const {
    if (_kind != Kind::Object) fail("must be an object");
    return _members;
}

const std::vector<Located>& Located::items() const {
    if (_kind != Kind::Array) fail("must be an array");
    return _items;
}

const Located* Located::find(const std::string& name) const {
    const auto found = std::find_if(_members.begin(), _members.end(),
                                    [&](const auto& member) { return member.first == name; });
    return found == _members.end() ? nullptr : &found->second;
}

const Located& Located::at(const std::string& name) const {
    members();
    if (const Located* found = find(name)) return *found;
    fail("\"" + name + "\" is missing");
}

void Located::allowOnly(const std::vector<std::string>& known) const {
    for (const auto& [name, member] : members())
        if (std::find(known.begin(), known.end(), name) == known.end())
            member.fail("is no member known here");
}

Poco::Dynamic::Var Located::value() const {
    return parseAny(_json);
}

std::string Located::text() const {
    const auto content = value();
    if (!content.isString()) fail("must be a text");
    return content.extract<std::string>();
}

bool Located::flag() const {
    const auto content = value();
    if (!content.isBoolean()) fail("must be true or false");
    return content.extract<bool>();
}

double Located::number() const {
    const auto content = value();
    if (!content.isNumeric() || content.isBoolean()) fail("must be a number");
    return content.convert<double>();
}

long Located::milliseconds(long least) const {
    const double count = number();
    if (count != static_cast<double>(static_cast<long>(count)) || count < static_cast<double>(least))
        fail("must be a whole number of milliseconds, at least " + std::to_string(least));
    return static_cast<long>(count);
}

}  // namespace ZolPlatform
