#pragma once

#include <string_view>

/** Whether a property list may be handed to the library that reads it.
 *
 *  The library frees what it read by recursion, repeats a shared object for every reference to
 *  it, moves the rest of a text at every entity, and aborts on a key that holds a NUL: a small
 *  hostile file can exhaust the stack, the memory or the time. What passes here has few containers,
 *  a bounded number of objects and bounded texts. The library finds by itself what is malformed.
 */
[[nodiscard]] bool PlatformCanReadBinaryPropertyList(std::string_view bytes);
[[nodiscard]] bool PlatformCanReadXMLPropertyList(std::string_view text);
