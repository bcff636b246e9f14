#include "DispatchBackends.h"
#include "platform/contract/DispatchSuite.h"

namespace quillmark::contract {

INSTANTIATE_TEST_SUITE_P(Dispatch, DispatchSuite, backends(), backendName);

}  // namespace quillmark::contract
