// Measures the startup of the service with many stored package subscriptions, on a simulated
// machine: until all of its threads wait.
//
// Usage: start_bench [--brief] [--json FILE]
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "bench/ratio_table.h"
#include "events/subscription_forms.h"
#include "platform/machine.h"
#include "service/orvane_service.h"
#include "simulator/simulated_machine.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"
#include "support/temp_folder.h"

namespace {

using namespace Vx;
using namespace Vx::Bench;
using Tessel::Server::Services::Orvane::OrvaneService;
using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::CapDataStore;
namespace Orvane = Tessel::Server::Services::Orvane;

std::wstring Request(std::size_t number) {
  return LR"({"catalogEvent":7,"catalogAction":2,"packageFamilyName":"App_abc",)"
         LR"("catalogActionParams":{"packageFamilyName":"Family_)" +
         std::to_wstring(number) + LR"(","appServiceName":"s","payload":{}}})";
}

// A machine on which a start has nothing to do except to watch packages.
class Machine {
 public:
  explicit Machine(std::size_t subscriptions) : count(subscriptions) {
    machine.clock.SetPatience(std::chrono::minutes(2));
    machine.users.LogOn(L"ann");
    machine.packages.Install(
        {.familyName = L"App_abc", .fullName = L"App_1.0.0.0_x64__abc", .folder = {}}, L"ann");
    machine.firmware.SetWarrantyBlock(std::string("20240715").append(120, '\0'));
    CapDataStore store;
    store.persist("oobe_complete_aurelo_launched", true);
    store.persist("oobe_complete_event_sent_to_quboapp", true);
    store.mergeMember(Orvane::kServiceDocument, "FirstSystemEnforcementMode",
                      BsonElement::Int32(0));
    std::wstring list = L"[";
    for (std::size_t i = 0; i < count; ++i) list += Request(i) + (i + 1 < count ? L"," : L"]");
    store.mergeMember(Orvane::kServiceDocument, Orvane::kPackageForm.list, BsonElement::Text(list));
  }

  // Returns once every thread waits.
  void Start() {
    service = OrvaneService::Create();
    service->Start();
    machine.clock.Settle();
  }

  void End() {
    if (service == nullptr) return;
    if (machine.clock.Workers() < count) throw std::runtime_error("a subscription is not watched");
    service->Destroy(1);
    service = nullptr;
    if (!machine.Drain()) throw std::runtime_error("a thread does not end");
  }

 private:
  std::size_t count;
  Tests::PrivateStore folder;
  Simulator::SimulatedMachine machine;
  Platform::MachineScope scope{[this](Platform::Machine& platform) { machine.Install(platform); }};
  OrvaneService* service = nullptr;
};

void Measure(RatioTable& table, Effort effort) {
  const std::size_t many = effort == Effort::Brief ? 20 : 1000;
  const std::size_t few = many / 10;
  // A machine must be destroyed before an earlier one, so only one exists at a time. The next is
  // created between two turns.
  std::optional<Machine> machine(many);
  bool next = true;  // the one with few
  const auto settle = [&] {
    machine->End();
    machine.reset();
    machine.emplace(next ? few : many);
    next = !next;
  };
  table.Compare(
      "start-up to the first wait, " + std::to_string(many) + " package subscriptions",
      "the same with a tenth of them (10 is linear)", 11, 1, [&] { machine->Start(); },
      [&] { machine->Start(); }, settle);
}

}  // namespace

int main(int argc, char** argv) {
  return RunBenchmarks(argc, argv, Measure);
}
