#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "enterprise/serialize/output_buffer.h"
#include "enterprise/serialize/serializer.h"

namespace Serialization {

// Bytes in base64: the standard alphabet, "=" at the end, no line breaks. No bytes give no text.
void AppendBase64(OutputBuffer& out, const unsigned char* bytes, std::size_t size);

// Reads base64. Tab, line feed, carriage return and blank may stand anywhere. False for any other
// character that isn't of the alphabet, for "=" in another place than the end of the last group of
// four, and for a last group that isn't full; `bytes` then stays as it was. Bits behind the last
// byte may have any value. No text gives no bytes. Takes memory for three bytes per four characters
// at most. Throws std::bad_alloc.
bool ReadBase64(std::u16string_view text, std::vector<unsigned char>& bytes);
bool ReadBase64(std::u16string_view text, CountedBytes& bytes);

}  // namespace Serialization
