#ifndef LOGGING_ESCAPED_H
#define LOGGING_ESCAPED_H

#include <Nubo/Export.h>

#include <string>

namespace Logging {

/// `text` as one line that may be shown on a terminal, whoever wrote it: line ends become the two characters
/// `\n` and `\r`; every other control character but the tab (C0, DEL, and C1 in UTF-8), and every byte that
/// is not a part of valid UTF-8 (RFC 3629), becomes `\xNN`, a byte each. All else stays as it is. One pass.
/// Any thread.
ZOL_EXPORT std::string escaped(std::string text);

/// The same for a JSON text (RFC 8259), which still has the same value afterwards: control characters become
/// `\u00NN`. Line ends and tabs stay, since they can only stand between the values. A byte that is not a part
/// of valid UTF-8, which JSON cannot say, becomes the four characters `\xNN` of a string's value.
ZOL_EXPORT std::string escapedJson(std::string json);

}  // namespace Logging

#endif
