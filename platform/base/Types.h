// The basic types and constants of Windows, under their own names.
// Types only, no functions to call: any file may include it.
#pragma once

#include <cstddef>
#include <cstdint>

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using UINT = unsigned int;
using BOOL = int;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using WCHAR = wchar_t;
using HRESULT = std::int32_t;
using LONG_PTR = std::intptr_t;
using DWORD_PTR = std::uintptr_t;
using WPARAM = std::uintptr_t;
using LPARAM = std::intptr_t;
using LRESULT = std::intptr_t;
using HANDLE = void *;

constexpr BOOL FALSE = 0;
constexpr BOOL TRUE = 1;
constexpr std::size_t _MAX_PATH = 260;

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005U);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057U);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000EU);

constexpr bool SUCCEEDED(HRESULT hr) { return hr >= 0; }
constexpr bool FAILED(HRESULT hr) { return hr < 0; }

struct GUID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};
using CLSID = GUID;
using IID = GUID;

// The calling conventions of Windows: of window procedures and callbacks, of functions looked up at run
// time, and of thread entries. There is one convention only here.
#define CALLBACK
#define WINAPI
#define __stdcall

/// Marks what the platform library exports to the module and the host.
#define SKIFFPORT_PLATFORM_API __attribute__((visibility("default")))
