// The limits of an HTTP exchange, and the one place where they stand. Nothing limits a body that keeps moving out.
#pragma once

#include "platform/base/Types.h"

#include <cstddef>
#include <cstdint>

constexpr DWORD kConnectLimit = 60'000;                     // ms until the connection is established, TLS included
constexpr DWORD kSendLimit = 30'000;                        // ms without progress while sending
constexpr std::uint64_t kReceiveLimit = 60'000;             // ms without a byte while receiving
constexpr std::uint64_t kReplyLimit = 300'000;              // ms that calls may wait for one whole reply
constexpr std::size_t kReplyHeadLimit = 100 * 1024;         // bytes of reply headers, interim replies included
constexpr std::uint64_t kReplyBodyLimit = 64 * 1024 * 1024; // bytes
constexpr std::size_t kRequestHeadLimit = 1024 * 1024;      // bytes; libcurl builds no larger head
