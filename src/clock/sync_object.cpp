#include "clock/sync_object.h"

namespace kelp {

SyncObject::~SyncObject() = default;

}  // namespace kelp
