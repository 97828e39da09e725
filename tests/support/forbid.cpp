// Runs a program to which the system refuses some calls, as a container does.
//
//   forbid CALL PROGRAM [ARGUMENT ...]
//
// CALL: unshare, mount, or bind (bind mounts only).
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

// The low half of the fourth argument of mount: its flags.
static constexpr unsigned kFlags = offsetof(seccomp_data, args) + 3 * sizeof(__u64);

int main(int argc, char **argv)
{
    const std::string call = argc > 2 ? argv[1] : "";
    const unsigned number = call == "unshare" ? SYS_unshare : SYS_mount;
    const __u8 to_refusal = call == "bind" ? 0 : 2; // instructions to skip: bind checks the flags
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, to_refusal, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFlags),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, MS_BIND, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {sizeof filter / sizeof *filter, filter};
    if (!call.empty() && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0) {
        execvp(argv[2], argv + 2);
    }
    std::perror("forbid");
    return 127;
}
