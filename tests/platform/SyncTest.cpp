#include "DispatchBackends.h"
#include "platform/contract/SyncSuite.h"

namespace quillmark::contract {

INSTANTIATE_TEST_SUITE_P(Sync, SyncSuite, testing::ValuesIn(backends()), backendName);

}  // namespace quillmark::contract
