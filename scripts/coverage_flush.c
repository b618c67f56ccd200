/* Linked into every executable of the coverage build only. The service and the children the
 * tests start are stopped with SIGTERM, whose default action ends a process without running
 * the code that writes its coverage counts: what they ran would not be counted. This writes
 * the counts first, then lets the signal end the process as it would have. */
#include <signal.h>
#include <string.h>

extern void __gcov_dump(void);

static void WriteCountsAndEnd(int signal_number) {
    __gcov_dump();
    struct sigaction restore;
    memset(&restore, 0, sizeof restore);
    restore.sa_handler = SIG_DFL;
    sigaction(signal_number, &restore, NULL);
    raise(signal_number);
}

__attribute__((constructor)) static void InstallCountWriter(void) {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = WriteCountsAndEnd;
    sigaction(SIGTERM, &action, NULL);
}
