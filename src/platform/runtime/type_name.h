#pragma once

#include <array>
#include <string_view>

namespace Vx::Platform {

namespace Detail {

// The compiler spells this function's name with "T = Name" followed by ']' or ';'.
template <typename T>
constexpr std::string_view PrettyName() {
  constexpr std::string_view text = __PRETTY_FUNCTION__;
  constexpr std::string_view marker = "T = ";
  constexpr std::size_t begin = text.find(marker) + marker.size();
  constexpr std::size_t end = text.find_first_of("];", begin);
  return text.substr(begin, end - begin);
}

template <typename T>
constexpr auto ClassText() {
  constexpr std::string_view prefix = "class ";
  constexpr std::string_view name = PrettyName<T>();
  std::array<char, prefix.size() + name.size() + 1> text{};
  prefix.copy(text.data(), prefix.size());
  name.copy(text.data() + prefix.size(), name.size());
  return text;
}

template <typename T>
inline constexpr auto kClassText = ClassText<T>();

}  // namespace Detail

// Returns "class " and the qualified name of T, for the beginning of log lines. Unlike typeid's
// name, it does not depend on the compiler.
template <typename T>
constexpr const char* TypeName() noexcept {
  return Detail::kClassText<T>.data();
}

}  // namespace Vx::Platform
