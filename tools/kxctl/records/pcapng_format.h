// Numbers of the form pcapng, for the writer and the reader.
#ifndef KXCTL_PCAPNG_FORMAT_H
#define KXCTL_PCAPNG_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace pcapng {

constexpr std::size_t alignment = 4;
constexpr std::uint32_t block_overhead = 12;  // type, and the length in front and behind

constexpr std::uint32_t section_block = 0x0A0D0D0A;  // reads the same in both byte orders
constexpr std::uint32_t interface_block = 1;
constexpr std::uint32_t packet_block = 6;

constexpr std::uint32_t byte_order_magic = 0x1A2B3C4D;
constexpr std::uint64_t unknown_length = ~std::uint64_t{0};
constexpr std::uint16_t link_type = 147;  // LINKTYPE_USER0
constexpr std::size_t packet_fixed = 20;  // bytes of a packet block before the packet

constexpr std::uint16_t end_of_options = 0;
constexpr std::uint16_t comment = 1;
constexpr std::uint16_t section_system = 3;
constexpr std::uint16_t section_application = 4;
constexpr std::uint16_t interface_name = 2;
constexpr std::uint16_t interface_resolution = 9;
constexpr std::uint16_t packet_flags = 2;

constexpr std::uint32_t no_direction = 0;
constexpr std::uint32_t inbound = 1;
constexpr std::uint32_t outbound = 2;

}  // namespace pcapng

#endif
