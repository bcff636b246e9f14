#include "DispatchBackends.h"
#include "platform/contract/DispatchSuite.h"

namespace quillmark::contract {

INSTANTIATE_TEST_SUITE_P(Dispatch, DispatchSuite, testing::ValuesIn(backends()), backendName);

}  // namespace quillmark::contract
