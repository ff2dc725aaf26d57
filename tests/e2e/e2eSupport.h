/*
 * Running the set-user-ID opener as an unprivileged user against a private root, and finding,
 * inspecting and stopping the daemons it starts.
 */
#ifndef BRIX_E2E_SUPPORT_H
#define BRIX_E2E_SUPPORT_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace e2e {

constexpr uid_t kNobody = 65534;

struct Spawned {
   pid_t pid = -1;
   int output = -1;  // read end of the child's standard output and error
};

/*
 * Starts program as nobody with args; passFd (if not -1) becomes descriptor passAs in the child,
 * and so does extraFd as extraAs. env replaces the environment.
 */
Spawned SpawnAsNobody(const std::string &program, const std::vector<std::string> &args,
                      const std::vector<std::string> &env, int passFd = -1, int passAs = -1,
                      int extraFd = -1, int extraAs = -1);

/* Waits up to timeoutMs; returns the wait status, or -1 after killing the child on timeout. */
int WaitFor(pid_t pid, int timeoutMs);

/* Reads the spawned child's output to end of file and closes it. */
std::string DrainOutput(Spawned &spawned);

/* Live (non-zombie) processes whose executable is path. */
std::vector<pid_t> ProcessesRunning(const std::string &path);

/* Stops every process running path: SIGTERM, then SIGKILL; reaps those that are our children. */
void StopAll(const std::string &path);

/* The descriptor table of pid: number -> link target. */
std::map<int, std::string> Descriptors(pid_t pid);

/* NUL-separated /proc file (cmdline, environ) as strings. */
std::vector<std::string> ProcStrings(pid_t pid, const char *name);

std::string ReadFile(const std::string &path);

/* Waits up to timeoutMs for path to contain text. */
bool WaitForText(const std::string &path, const std::string &text, int timeoutMs);

}  // namespace e2e

#endif
