// Running one program directly, without a shell, and waiting for it.
#ifndef SDK_SLIB_EXEC_H_
#define SDK_SLIB_EXEC_H_

#ifdef __cplusplus
extern "C" {
#endif

// Runs the program `path` with up to four arguments; the argument list ends
// at the first null (arguments after it are ignored). The child has standard
// input, output and error on "/dev/null", no other descriptor of the caller
// open (so a daemon it leaves behind keeps none of the caller's lock files),
// working directory "/", and executes `path` itself (no PATH search, no
// shell). The caller waits for the child.
//
// Returns the child's exit status when it exited normally. Returns -1 with
// error 0x2A00 when the program could not be started (fork failed, or the
// child could not redirect, change directory or execute), when it ended by a
// signal, or when waiting failed; a wait that fails because the child was
// already reaped (ECHILD, e.g. SIGCHLD ignored) counts as status 0. A null
// `path` returns -1 with error 0xD00.
int SLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4);

#ifdef __cplusplus
}
#endif

#endif  // SDK_SLIB_EXEC_H_
