// Which characters control a line rather than stand in it. Any thread.
#pragma once

/// True for the control characters of ASCII, which no file name, address or header line may hold.
constexpr bool IsControlCharacter(char32_t character) { return character < 0x20 || character == 0x7F; }
