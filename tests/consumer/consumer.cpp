// An application outside of the project's tree. With a name as argument it also joins the bus for a moment.
#include <cstdio>
#include <string>

#include "KXclientComponent.h"

int main(int argc, char** argv) {
  KXmessage message;
  message << 7;
  message << "sevenfold";
  int number = 0;
  std::string text;
  message >> number;
  message >> text;
  std::printf("%d %s\n", number, text.c_str());

  if (argc > 1) KXclientComponent(argv[1]).start(KXcomponent::CMP_START_AND_STOP);
  return number == 7 && text == "sevenfold" ? 0 : 1;
}
