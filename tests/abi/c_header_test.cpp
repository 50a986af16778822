// Checks each entry of the C contract against the signature and slot of its virtual function.

#include "host/completion_callback.h"
#include "host/vx_service.h"
#include "host/vx_service_c.h"
#include "support/test.h"

namespace Contract = Vx::Tessel::Server::Services;

namespace {

template <typename T>
struct InC {
  using Type = T;
};
template <typename T>
struct InC<T*> {
  using Type = typename InC<T>::Type*;
};
template <>
struct InC<Contract::ClientContext> {
  using Type = VxClientContext;
};
template <>
struct InC<Contract::CompletionCallback> {
  using Type = VxCompletionCallback;
};

template <typename Result, typename... Arguments>
auto FunctionInC(Result (Contract::VxService::*)(Arguments...)) ->
    typename InC<Result>::Type (*)(VxServiceObject*, typename InC<Arguments>::Type...);

// Returns a virtual function's vtable offset. This compiler's member pointers store it plus one.
template <typename Member>
std::size_t OffsetOf(Member member) {
  std::size_t words[2] = {};
  static_assert(sizeof member == sizeof words);
  std::memcpy(words, &member, sizeof words);
  return words[0] - 1;
}

#define EXPECT_SAME_SLOT(number, cpp, c)                                         \
  static_assert(std::is_same_v<decltype(FunctionInC(&Contract::VxService::cpp)), \
                               decltype(VxServiceTable::c)>,                     \
                "slot " #number " has another signature");                       \
  EXPECT_EQ(OffsetOf(&Contract::VxService::cpp), offsetof(VxServiceTable, c));   \
  EXPECT_EQ(offsetof(VxServiceTable, c), std::size_t{number} * sizeof(void*))

TEST(CHeaderTest, HasTheSlotsOfTheContractInTheirPlaces) {
  EXPECT_SAME_SLOT(0, Destroy, Destroy);
  EXPECT_SAME_SLOT(1, CreateClientContext, CreateClientContext);
  EXPECT_SAME_SLOT(2, ReleaseClientContext, ReleaseClientContext);
  EXPECT_SAME_SLOT(3, ExecuteCommand, ExecuteCommand);
  EXPECT_SAME_SLOT(4, FreeResponse, FreeResponse);
  EXPECT_SAME_SLOT(5, Start, Start);
  EXPECT_SAME_SLOT(6, power_event_task, PowerEventTask);
  EXPECT_SAME_SLOT(7, Reserved7, Reserved7);
  EXPECT_SAME_SLOT(8, oobe_event_task, OobeEventTask);
  EXPECT_SAME_SLOT(9, OnSessionChange, OnSessionChange);
  EXPECT_SAME_SLOT(10, Reserved10, Reserved10);
  EXPECT_EQ(sizeof(VxServiceTable), 11 * sizeof(void*));
}

TEST(CHeaderTest, HasTheRecordsAndTheExportOfTheContract) {
  static_assert(sizeof(VxClientContext) == sizeof(Contract::ClientContext));
  static_assert(sizeof(VxCompletionCallback) == sizeof(Contract::CompletionCallback));
  static_assert(offsetof(VxCompletionCallback, held) ==
                offsetof(Contract::CompletionCallback, held));
  EXPECT_STREQ(VX_CREATE_SERVICE_EXPORT, Contract::kCreateServiceExport);
}

}  // namespace
