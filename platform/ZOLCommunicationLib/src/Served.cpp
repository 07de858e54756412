#include "Served.h"

namespace Nubo::Net {

Served::Served(std::unique_ptr<Connection> served) : connection(std::move(served)) {
    Timers one;
    one.emplace(due, this);
    timer = one.extract(one.begin());
}

}  // namespace Nubo::Net
