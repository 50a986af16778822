#pragma once

#include "platform/data_protection.h"
#include "simulator/fault_injection.h"
#include "simulator/virtual_clock.h"
#include "storage/store_file.h"
#include "support/faulty_files.h"
#include "support/test.h"

namespace Vx::Tests {

class FaultyProtection final : public Platform::DataProtection {
 public:
  // Makes Unprotect fail for blobs of at least `leastSize` bytes, `count` times or always.
  void Fail(Platform::ErrorCode error, int count = -1, std::size_t leastSize = 0) {
    unprotecting = error;
    left = count;
    least = leastSize;
  }

  Platform::Result<Bytes> Protect(std::span<const std::byte> plain,
                                  const std::wstring& description) const override {
    return real.Protect(plain, description);
  }
  Platform::Result<Bytes> Unprotect(std::span<const std::byte> sealed) const override {
    if (unprotecting == 0 || left == 0 || sealed.size() < least) return real.Unprotect(sealed);
    if (left > 0) --left;
    return Platform::Failure(unprotecting);
  }

 private:
  Platform::ErrorCode unprotecting = 0;
  mutable int left = -1;
  std::size_t least = 0;
  Platform::DataProtection& real = *Platform::WindowsMachine().dataProtection;
};

// A store for this test alone, on real files with injected faults and a virtual clock.
class FaultyStoreTest : public testing::Test {
 protected:
  std::wstring Path() const { return home.FilePath(); }

  // Returns the file's document without using the store's own code. Nothing if it is unreadable.
  std::optional<Tessel::Server::Storage::BsonDocument> Held() const {
    return HeldBy(ReadBytes(Path()));
  }

  std::vector<std::wstring> Siblings() const { return *disk.Siblings(Path()); }

  PrivateStore home;
  LogCapture log;
  FaultyFiles disk;
  FaultyProtection protection;
  Simulator::VirtualClock clock;
  Simulator::FaultInjection faults;
  Platform::MachineScope scope{[this](Platform::Machine& machine) {
    machine.files = &disk;
    machine.dataProtection = &protection;
    machine.clock = &clock;
    faults.Install(machine);
  }};
};

}  // namespace Vx::Tests
