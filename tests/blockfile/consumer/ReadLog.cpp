// A consumer built only against the installed headers and block file library: it reads a
// published change log with CRC checking and prints its header and the statement record.
#include <fbcdc/ReplException.h>
#include <fbcdc/TReadFile.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  try {
    TReadFile log;
    log.open(argv[1], true);
    char magic[5] = {};
    log.getBytes(magic, 4);
    const unsigned version = log.getByte(), tag = log.getByte();
    log.skip(1);
    std::string text(log.getByte(), '\0');
    log.getBytes(&text[0], static_cast<std::int32_t>(text.size()));
    const unsigned type = log.getByte(), scale = log.getInt16();
    const unsigned long long number = log.getInt64();
    const unsigned marker = log.getByte();
    std::printf("%s %u %c [%s] %u %u %llu %c %lld\n", magic, version, tag, text.c_str(), type,
                scale, number, marker, static_cast<long long>(log.getPosition()));
  } catch (const ReplException& e) {
    std::fprintf(stderr, "ReadLog: %s: %s\n", e.first(), e.second());
    return 1;
  }
  return 0;
}
