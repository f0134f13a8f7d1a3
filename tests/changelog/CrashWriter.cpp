// A server that dies: loads the plugin with dlopen and records transactions of every size into
// the output directory of its configuration, in an endless loop, until it is killed.
//
//   fbcdc_crash_writer PLUGIN CONFIG SEED
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include <firebird/Interface.h>

#include "IReplPlugin.h"
#include "IReplTransaction.h"
#include "LiteralRow.h"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  void* library = ::dlopen(argv[1], RTLD_NOW);
  if (!library) return 1;
  using Entry = Firebird::IReplPlugin* (*)(Firebird::IStatus*, int, Firebird::IConfig*);
  auto entry = reinterpret_cast<Entry>(::dlsym(library, "getReplPlugin"));
  Firebird::IMaster* master = Firebird::fb_get_master_interface();
  Firebird::IStatus* status = master->getStatus();
  Firebird::CheckStatusWrapper wrapper(status);
  Firebird::IConfig* config = master->getPluginManager()->getConfig(&wrapper, argv[2]);
  Firebird::IReplPlugin* plugin = config ? entry(status, 30, config) : nullptr;
  if (!plugin) return 1;
  // Ready: the killer's clock starts now, not while the process and the library load.
  std::fputs("ready\n", stdout);
  std::fflush(stdout);
  std::mt19937 random(static_cast<unsigned>(std::atoi(argv[3])));
  // Numbers no other run of this writer uses.
  std::uint64_t number = static_cast<std::uint64_t>(::getpid()) << 24;
  for (;;) {
    Firebird::IReplTransaction* t = plugin->startTransaction(status, ++number);
    const int records = static_cast<int>(random() % 600);
    for (int i = 0; i < records; ++i) {
      if (random() % 50 == 0) t->startSavepoint(status, i);
      if (random() % 60 == 0) t->rollbackSavepoint(static_cast<int>(random() % (i + 1)));
      LiteralRow row("T");
      row.addLong("ID", i).addVarchar("TEXT", std::string(random() % 200, 'a' + i % 26), 4);
      t->insertRecord(status, nullptr, nullptr, &row);
    }
    if (random() % 8) t->commit(status);
    t->dispose();
  }
}
