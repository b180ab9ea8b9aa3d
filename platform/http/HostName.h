// A host's name as it goes on the wire. Pure text work, any thread.
#pragma once

#include <string>

/// Turns an international name (in the calling thread's character set) into its ASCII form and checks what goes out:
/// the mapping may introduce characters (U+00A0 becomes a space). Returns: false, with the host as it was, if it is
/// empty, has no ASCII form, or holds a character that ends or escapes a host in a URL. May throw std::bad_alloc.
bool ToWireHost(std::string &host);
