#include "CloseCode.h"

namespace Nubo::Net {

bool isCloseCodeAllowed(std::uint16_t code) {
    return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) || (code >= 3000 && code <= 4999);
}

const char* closeCodeMeaning(std::uint16_t code) {
    switch (code) {
        case 1000:
            return "normal closure";
        case 1001:
            return "going away";
        case 1002:
            return "protocol error";
        case 1003:
            return "unsupported data";
        case 1005:
            return "no status";
        case 1007:
            return "invalid payload data";
        case 1008:
            return "policy violation";
        case 1009:
            return "message too big";
        case 1010:
            return "mandatory extension";
        case 1011:
            return "internal error";
        case 1012:
            return "service restart";
        case 1013:
            return "try again later";
        case 1014:
            return "bad gateway";
        default:
            return "";
    }
}

}  // namespace Nubo::Net
