#include <Nubo/Util/IUncopyable.h>

namespace Nubo::Util {

IUncopyable::IUncopyable() = default;

IUncopyable::~IUncopyable() = default;

}  // namespace Nubo::Util
