// The checksum of the POSIX `cksum` command: a CRC over the bytes, then over their number, inverted.
#ifndef SYSMON_CKSUM_H
#define SYSMON_CKSUM_H

#include <cstdint>

class cksum {
 public:
  void add(unsigned char byte) {
    m_crc = step(m_crc, byte);
    ++m_bytes;
  }

  std::uint32_t crc() const {
    std::uint32_t crc = m_crc;
    for (unsigned long long rest = m_bytes; rest != 0; rest >>= 8)
      crc = step(crc, rest & 0xFF);
    return ~crc;
  }

  unsigned long long bytes() const { return m_bytes; }

 private:
  static std::uint32_t step(std::uint32_t crc, std::uint32_t byte) {
    crc ^= byte << 24;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc << 1) ^ ((crc >> 31) * 0x04C11DB7);
    return crc;
  }

  std::uint32_t m_crc = 0;
  unsigned long long m_bytes = 0;
};

#endif
