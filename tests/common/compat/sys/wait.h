// Windows test builds: the exit status that _pclose and _spawn report is the
// program's exit code itself.
#pragma once

#define WIFEXITED(status) ((status) != -1)
#define WEXITSTATUS(status) ((status) & 0xFF)
#define WIFSIGNALED(status) 0
#define WTERMSIG(status) 0
