#pragma once

namespace Vx::Tessel::Server::Services::Orvane {

// A packaged app: its family name and the execution alias that starts it.
struct CompanionApp {
  const wchar_t* packageFamilyName;
  const wchar_t* alias;
};

// The companion app and its predecessor. Every operation tries them in this order.
inline constexpr CompanionApp kQubo{L"7C3B9E40.Qubo_r4x2m8kq7tn3b", L"Qubo.exe"};
inline constexpr CompanionApp kLumo{L"7C3B9E40.VxLumos_r4x2m8kq7tn3b", L"Vx.Lumos.exe"};

// The AI-experience app.
inline constexpr CompanionApp kAurelo{L"7C3B9E40.AureloCenter_r4x2m8kq7tn3b", L"AureloCenter.exe"};

// The support assistant. The service never starts it.
inline constexpr wchar_t kSentraFamily[] = L"7C3B9E40.SentraAssistant_r4x2m8kq7tn3b";

}  // namespace Vx::Tessel::Server::Services::Orvane
