// Child processes of the tests: a program started with its output going to files, and its end.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// Starts args[0] (looked up in PATH when it holds no slash) with stdout and stderr written to the
// files out and err; returns its pid, or -1 after reporting a test failure.
pid_t spawn(std::vector<std::string> args, const std::string& out, const std::string& err);
// Waits for pid: its exit status, or -1 when a signal ended it.
int waitFor(pid_t pid);
// Sends signal to pid (never to a pid that spawn did not return) and waits for it, as waitFor; a
// process still running a minute later is a test failure, killed, and gives -2.
int stop(pid_t pid, int signal);
// A free loopback port for a server the test starts (the kernel's choice for a socket bound to
// port 0), or 0 when there is none.
int loopbackPort();
// Whether something accepts a connection on the loopback port.
bool loopbackAccepts(int port);
