#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/fake_console.h"
#include "support/temp_folder.h"

namespace Vx::Tests {

// Where a machine has its registration data and where its console user's copy goes, in folders of
// their own that are there already.
class RegistrationFiles {
 public:
  explicit RegistrationFiles(FakeConsole& console) {
    console.userVariables = {{L"%programdata%", machine.Path().wstring()},
                             {L"%AppData%", user.Path().wstring()}};
    std::filesystem::create_directories(Source().parent_path());
    std::filesystem::create_directories(Destination().parent_path());
  }

  std::filesystem::path Source() const {
    return machine.Path() / "Vx" / "Registration" / "registration_subset.xml";
  }
  std::filesystem::path Destination() const {
    return user.Path() / "Vx" / "Vx Setup" / "REGDATA" / "RegistrationSubset.xml";
  }
  void WriteSource(const std::string& content) const {
    std::ofstream(Source(), std::ios::binary) << content;
  }
  std::string Copied() const {
    std::ifstream file(Destination(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  TempFolder machine;
  TempFolder user;
};

}  // namespace Vx::Tests
