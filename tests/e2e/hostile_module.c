/* A module that announces being loaded: its constructor creates the file
   that HOSTILE_MARKER names. What a user would plant for a privileged
   program to load. */
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

__attribute__((constructor)) static void announce(void) {
    const char* marker = getenv("HOSTILE_MARKER");
    if (marker == NULL) return;
    int fd = open(marker, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) close(fd);
}
