#include <Nubo/Util/DataMessageBase.h>

namespace Nubo::Util {

DataMessageBase::DataMessageBase() = default;

DataMessageBase::~DataMessageBase() = default;

void DataMessageBase::destroyData() {}

}  // namespace Nubo::Util
