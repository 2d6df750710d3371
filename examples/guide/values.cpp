// Prints the bytes of one value of each type in a payload: the tag, then the encoding.
#include <cstdio>

#include "KXmessage.h"

namespace {

template <typename T>
void print(const char* type, const char* text, const T& value) {
  KXmessage message;
  message << value;
  std::printf("%-19s %-18s", type, text);
  for (int i = 0; i < message.size; ++i)
    std::printf(" %02x", message.data[message.offset + i]);
  std::puts("");
}

}  // namespace

int main() {
  print<signed char>("signed char", "-2", -2);
  print<unsigned char>("unsigned char", "200", 200);
  print<short>("short", "-2", -2);
  print<unsigned short>("unsigned short", "0x0102", 0x0102);
  print("int", "-2", -2);
  print("unsigned int", "0x01020304", 0x01020304U);
  print<std::string>("std::string", "\"ab\"", "ab");
  print<std::string>("std::string", "\"\"", "");
  unsigned char bytes[] = {0x0a, 0x0b, 0x0c};
  print("buffer_t", "3 bytes", buffer_t(bytes, 3));
  print("bool", "true", true);
  print("long long", "-2", -2LL);
  print("unsigned long long", "0x0102030405060708", 0x0102030405060708ULL);
}
