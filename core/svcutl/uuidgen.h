// Internal interface of the UUID module: shared helpers of the text forms and
// the generator, and the node-address sources, reachable by the tests.
#ifndef ZAR_CORE_SVCUTL_UUIDGEN_H_
#define ZAR_CORE_SVCUTL_UUIDGEN_H_

#include <stdint.h>

#include "zar/uuid.h"

namespace zar::uuid {

// The file that names the node address when no interface has one.
inline constexpr char kAddressFile[] = "/etc/ieee_802_addr";

// False for the unknown variant (top three bits of byte 8 set).
bool variantOk(const kp_uuid_t& u);
// Writes the 36-character text form and a NUL.
void format(const kp_uuid_t& u, char out[KP_UUID_STRING_LEN + 1]);

// Reads a node address from the first twelve bytes of path: 0, or
// ZAR_S_UUID_ADDR_FILE_MISSING (unreadable or shorter than 12 bytes) or
// ZAR_S_UUID_ADDR_FILE_BAD (not twelve hexadecimal digits).
uint32_t readAddressFile(const char* path, uint8_t out[6]);

// The node address for UUIDs from the address the interface walk collected:
// that address unless it is six zero bytes, else the address file, else six
// random bytes with the multicast bit set. 0, or ZAR_S_UUID_NO_ADDRESS when
// not even random bytes could be had.
uint32_t chooseNode(const uint8_t walked[6], const char* addressFile, uint8_t out[6]);

}  // namespace zar::uuid

#endif  // ZAR_CORE_SVCUTL_UUIDGEN_H_
