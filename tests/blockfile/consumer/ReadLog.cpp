// A consumer built only against the installed headers and libraries: it decodes each log named on
// the command line and prints its name and its number of events; a log that does not decode
// fails it.
#include <fbcdc/LogDecoder.h>
#include <fbcdc/LogFormatError.h>

#include <cstdio>

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    try {
      LogDecoder log;
      log.open(argv[i]);
      unsigned events = 0;
      while (log.next().kind != ChangeEvent::Kind::kEnd) ++events;
      std::printf("%s %u\n", argv[i], events);
    } catch (const LogFormatError& e) {
      std::fprintf(stderr, "ReadLog: %s\n", e.what());
      return 1;
    }
  }
  return 0;
}
