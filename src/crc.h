// CRC-16/KERMIT: width 16, polynomial 0x1021 reflected to 0x8408, initial value and final
// exclusive-or 0 (check value over "123456789": 0x2189; see the catalogue of parametrised CRC
// algorithms). It serves only to notice that something changed and is never stored.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

// Continues the checksum crc_ over length_ bytes: pieces give the same result as the whole.
uint16_t CRC(uint16_t crc_, const uint8_t* data_, size_t length_);

// Checksum of the whole file. A file that cannot be opened counts as an empty one: 0.
uint16_t FileCRC(const std::string& path_);
