/*
 * ostpmc-phc-standin: the test bed's stand-in for the device's PTP hardware clock driver node.
 *
 *     ostpmc-phc-standin DIR [--record FILE] [--fail ERRNO]
 *
 * Mounts a FUSE file system on DIR that holds one regular file, "ostphc" (mode 0666), and
 * answers the AVB-mode ioctl the daemon sends to the driver: command 0x89F0, whose argument
 * is the address of a 36-byte block of nine 32-bit words in host order. The number encodes no
 * size, so the kernel copies nothing and hands over the caller's raw pointer; the block is read
 * from the caller with process_vm_readv. Each request is appended to FILE as one line of nine
 * 8-digit lower-case hex words and answered with success or with the injected errno. Any other
 * ioctl gets ENOTTY.
 *
 * Writing "fail N" to the file makes every later ioctl fail with errno N; "ok" (or "fail 0")
 * restores success; reading it tells the current setting. N is 1..511 and not ENOSYS: the
 * kernel turns ENOSYS into ENOTTY, and refuses a reply with an errno of 512 or more, which
 * would leave the caller blocked.
 *
 * Runs in the foreground and single-threaded, mounted with auto_unmount so that the mount goes
 * when the process dies, however it dies. SIGTERM, SIGINT and SIGHUP unmount and end it with
 * status 0. Prints nothing but errors.
 *
 * auto_unmount alone is not enough: fusermount3 (3.14) unmounts after our death only when
 * opening DIR fails with ENOTCONN, and when it looks before the kernel has released our
 * /dev/fuse descriptor the open fails with ECONNABORTED and the dead mount stays (5 of 600
 * SIGKILLs here). A second watcher of our own, forked before the mount so that it holds
 * nothing of the file system, finishes the job when fusermount3 did not.
 */
#define _GNU_SOURCE
#define FUSE_USE_VERSION 35
#include <errno.h>
#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <inttypes.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define PROGRAM "ostpmc-phc-standin"
#define USAGE "usage: " PROGRAM " DIR [--record FILE] [--fail ERRNO]"
#define NODE_NAME "ostphc"
#define NODE_INO 2
#define AVB_IOCTL 0x89F0u
#define AVB_WORDS 9
/* The kernel refuses a reply whose error is -512 or below (the request then stays pending). */
#define MAX_ERRNO 511
#define MOUNT_TYPE "fuse." PROGRAM

struct standin {
    FILE* record; /* NULL without --record */
    int fail;     /* the errno every ioctl answers; 0: success */
    time_t started;
};

static struct standin* standin_of(fuse_req_t req) {
    return (struct standin*)fuse_req_userdata(req);
}

/* Parses a decimal errno that may be injected: 0 (success) or 1..MAX_ERRNO except ENOSYS. */
static int parse_errno(const char* text, int* out) {
    if (*text < '0' || *text > '9') {
        return -1;
    }
    char* end = NULL;
    errno = 0;
    long value = strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < 0 || value > MAX_ERRNO || value == ENOSYS) {
        return -1;
    }
    *out = (int)value;
    return 0;
}

/* "ok" or "fail N", with surrounding blanks and line ends allowed. */
static int parse_command(const char* buf, size_t size, int* fail) {
    char text[64];
    if (size >= sizeof text) {
        return -1;
    }
    memcpy(text, buf, size);
    text[size] = '\0';
    char* start = text;
    while (*start == ' ' || *start == '\t') {
        ++start;
    }
    size_t len = strlen(start);
    while (len > 0 && strchr(" \t\r\n", start[len - 1]) != NULL) {
        start[--len] = '\0';
    }
    if (strcmp(start, "ok") == 0) {
        *fail = 0;
        return 0;
    }
    if (strncmp(start, "fail", 4) != 0 || (start[4] != ' ' && start[4] != '\t')) {
        return -1;
    }
    const char* number = start + 4;
    while (*number == ' ' || *number == '\t') {
        ++number;
    }
    return parse_errno(number, fail);
}

static size_t state_text(const struct standin* s, char* buf, size_t size) {
    int n = s->fail != 0 ? snprintf(buf, size, "fail %d\n", s->fail) : snprintf(buf, size, "ok\n");
    return n < 0 ? 0 : (size_t)n;
}

static int fill_attr(const struct standin* s, fuse_ino_t ino, struct stat* st) {
    memset(st, 0, sizeof *st);
    st->st_ino = ino;
    st->st_uid = getuid();
    st->st_gid = getgid();
    st->st_atime = st->st_mtime = st->st_ctime = s->started;
    if (ino == FUSE_ROOT_ID) {
        st->st_mode = S_IFDIR | 0755;
        st->st_nlink = 2;
        return 0;
    }
    if (ino == NODE_INO) {
        char text[32];
        st->st_mode = S_IFREG | 0666;
        st->st_nlink = 1;
        st->st_size = (off_t)state_text(s, text, sizeof text);
        return 0;
    }
    return -1;
}

static void op_lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
    struct fuse_entry_param entry;
    memset(&entry, 0, sizeof entry);
    if (parent != FUSE_ROOT_ID || strcmp(name, NODE_NAME) != 0) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    entry.ino = NODE_INO;
    fill_attr(standin_of(req), NODE_INO, &entry.attr);
    fuse_reply_entry(req, &entry); /* time-outs 0: the size follows the setting */
}

static void op_getattr(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info* fi) {
    (void)fi;
    struct stat st;
    if (fill_attr(standin_of(req), ino, &st) != 0) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    fuse_reply_attr(req, &st, 0.0);
}

/* Opening with O_TRUNC (as a shell's ">" does) may arrive as a size change: nothing changes. */
static void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat* attr, int to_set,
                       struct fuse_file_info* fi) {
    (void)attr;
    (void)to_set;
    op_getattr(req, ino, fi);
}

static void op_open(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info* fi) {
    if (ino != NODE_INO) {
        fuse_reply_err(req, EISDIR);
        return;
    }
    fi->direct_io = 1; /* every read and write reaches us, whatever the size says */
    fuse_reply_open(req, fi);
}

static void op_read(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off,
                    struct fuse_file_info* fi) {
    (void)ino;
    (void)fi;
    char text[32];
    size_t len = state_text(standin_of(req), text, sizeof text);
    if (off < 0 || (size_t)off >= len) {
        fuse_reply_buf(req, NULL, 0);
        return;
    }
    len -= (size_t)off;
    fuse_reply_buf(req, text + off, len < size ? len : size);
}

static void op_write(fuse_req_t req, fuse_ino_t ino, const char* buf, size_t size, off_t off,
                     struct fuse_file_info* fi) {
    (void)ino;
    (void)off;
    (void)fi;
    int fail = 0;
    if (parse_command(buf, size, &fail) != 0) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    standin_of(req)->fail = fail;
    fuse_reply_write(req, size);
}

static void op_opendir(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info* fi) {
    if (ino != FUSE_ROOT_ID) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    fuse_reply_open(req, fi);
}

static void op_readdir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off,
                       struct fuse_file_info* fi) {
    (void)fi;
    static const struct {
        const char* name;
        fuse_ino_t ino;
        mode_t mode;
    } entries[] = {{".", FUSE_ROOT_ID, S_IFDIR},
                   {"..", FUSE_ROOT_ID, S_IFDIR},
                   {NODE_NAME, NODE_INO, S_IFREG}};
    char buf[512];
    size_t used = 0;
    if (ino != FUSE_ROOT_ID) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    for (off_t i = off; i < (off_t)(sizeof entries / sizeof entries[0]); ++i) {
        struct stat st;
        memset(&st, 0, sizeof st);
        st.st_ino = entries[i].ino;
        st.st_mode = entries[i].mode;
        size_t room = size < sizeof buf ? size : sizeof buf;
        size_t need = fuse_add_direntry(req, buf + used, room - used, entries[i].name, &st, i + 1);
        if (need > room - used) {
            break;
        }
        used += need;
    }
    fuse_reply_buf(req, buf, used);
}

static void record_request(struct standin* s, const uint32_t words[AVB_WORDS]) {
    if (s->record == NULL) {
        return;
    }
    for (int i = 0; i < AVB_WORDS; ++i) {
        fprintf(s->record, i == 0 ? "%08" PRIx32 : " %08" PRIx32, words[i]);
    }
    fputc('\n', s->record);
    if (fflush(s->record) != 0 || ferror(s->record)) {
        fprintf(stderr, PROGRAM ": cannot write the record file: %s\n", strerror(errno));
        clearerr(s->record);
    }
}

static void op_ioctl(fuse_req_t req, fuse_ino_t ino, unsigned int cmd, void* arg,
                     struct fuse_file_info* fi, unsigned flags, const void* in_buf, size_t in_bufsz,
                     size_t out_bufsz) {
    (void)fi;
    (void)flags;
    (void)in_buf;
    (void)in_bufsz;
    (void)out_bufsz;
    struct standin* s = standin_of(req);
    if (ino != NODE_INO || cmd != AVB_IOCTL) {
        fuse_reply_err(req, ENOTTY);
        return;
    }
    /* The caller's thread id, as seen from our pid namespace (0 when it is not visible). */
    const pid_t caller = fuse_req_ctx(req)->pid;
    uint32_t words[AVB_WORDS];
    struct iovec local = {words, sizeof words};
    struct iovec remote = {arg, sizeof words};
    ssize_t got = caller > 0 ? process_vm_readv(caller, &local, 1, &remote, 1, 0) : -1;
    if (got != (ssize_t)sizeof words) {
        fprintf(stderr, PROGRAM ": cannot read the request block of pid %d at %p: %s\n",
                (int)caller, arg,
                caller <= 0 ? "the caller is outside our pid namespace"
                : got < 0   ? strerror(errno)
                            : "short read");
        fuse_reply_err(req, EFAULT);
        return;
    }
    record_request(s, words);
    if (s->fail != 0) {
        fuse_reply_err(req, s->fail);
    } else {
        fuse_reply_ioctl(req, 0, NULL, 0);
    }
}

static const struct fuse_lowlevel_ops standin_ops = {
    .lookup = op_lookup,
    .getattr = op_getattr,
    .setattr = op_setattr,
    .open = op_open,
    .read = op_read,
    .write = op_write,
    .opendir = op_opendir,
    .readdir = op_readdir,
    .ioctl = op_ioctl,
};

/* Undoes the octal escapes of /proc/self/mountinfo (\040 for a blank and so on) in place. */
static void unescape(char* field) {
    char* out = field;
    for (const char* in = field; *in != '\0'; ++out) {
        if (in[0] == '\\' && in[1] >= '0' && in[1] <= '3' && in[2] >= '0' && in[2] <= '7' &&
            in[3] >= '0' && in[3] <= '7') {
            *out = (char)(((in[1] - '0') << 6) | ((in[2] - '0') << 3) | (in[3] - '0'));
            in += 4;
        } else {
            *out = *in++;
        }
    }
    *out = '\0';
}

/* Whether the topmost mount on dir (an absolute path) is a stand-in's. */
static int standin_on_top(const char* dir) {
    FILE* mountinfo = fopen("/proc/self/mountinfo", "re");
    char* line = NULL;
    size_t size = 0;
    int ours = 0;
    if (mountinfo == NULL) {
        return 0;
    }
    while (getline(&line, &size, mountinfo) > 0) {
        char point[4096];
        const char* dash = strstr(line, " - ");
        char type[256];
        if (sscanf(line, "%*s %*s %*s %*s %4095s", point) != 1 || dash == NULL ||
            sscanf(dash, " - %255s", type) != 1) {
            continue;
        }
        unescape(point);
        if (strcmp(point, dir) == 0) {
            ours = strcmp(type, MOUNT_TYPE) == 0; /* later lines are mounted on top */
        }
    }
    free(line);
    fclose(mountinfo);
    return ours;
}

static void sleep_ms(long ms) {
    struct timespec pause = {ms / 1000, (ms % 1000) * 1000 * 1000};
    nanosleep(&pause, NULL);
}

/*
 * The backstop for auto_unmount: waits for the end of the pipe's writer (us), gives fusermount3
 * its turn, then detaches a stand-in mount still on dir whose server is gone (ENOTCONN or
 * ECONNABORTED). A live stand-in's mount answers, so it is never touched.
 */
static void watch_for_death(int pipe_fd, const char* dir) {
    char byte;
    ssize_t n;
    do {
        n = read(pipe_fd, &byte, 1);
    } while (n > 0 || (n < 0 && errno == EINTR));
    for (int waited = 0; waited < 3000 && standin_on_top(dir); waited += 20) {
        struct stat st;
        if (waited >= 250 && stat(dir, &st) != 0 && (errno == ENOTCONN || errno == ECONNABORTED)) {
            if (umount2(dir, MNT_DETACH) != 0) {
                fprintf(stderr, PROGRAM ": cannot unmount %s: %s\n", dir, strerror(errno));
            }
            return;
        }
        sleep_ms(20);
    }
}

/* Forks the watcher; it keeps only standard error and the pipe, and ignores every signal but
 * SIGKILL, so that what ends us (a terminal's Ctrl-C included) leaves it to do its job. */
static int start_death_watcher(const char* dir) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return -1;
    }
    pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return -1;
    }
    if (pid == 0) {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, NULL);
        if (chdir("/") != 0 || dup2(fds[0], STDIN_FILENO) < 0) {
            _exit(1);
        }
        close_range(3, ~0U, 0);
        watch_for_death(STDIN_FILENO, dir);
        _exit(0);
    }
    close(fds[0]);
    return 0; /* fds[1] stays open until we are gone */
}

/*
 * With auto_unmount, fusermount3 stays behind as our child, watching a socket that libfuse
 * keeps open, and unmounts when it closes; so does our own watcher with its pipe. After our own
 * unmount they have nothing left to do: closing every descriptor lets them go, and waiting for
 * them keeps them from staying zombies where init does not reap (as in containers). Bounded, so
 * that a stuck helper cannot hold us.
 */
static void reap_mount_watchers(void) {
    close_range(3, ~0U, 0);
    for (int i = 0; i < 200; ++i) {
        pid_t pid = waitpid(-1, NULL, WNOHANG);
        if (pid < 0 && errno != EINTR) {
            return; /* ECHILD: no child left */
        }
        if (pid == 0) {
            struct timespec pause = {0, 10 * 1000 * 1000};
            nanosleep(&pause, NULL);
        }
    }
}

static int usage_error(const char* what, const char* arg) {
    fprintf(stderr, PROGRAM ": %s%s%s (" USAGE ")\n", what, arg != NULL ? " " : "",
            arg != NULL ? arg : "");
    return 2;
}

int main(int argc, char** argv) {
    struct standin s = {NULL, 0, time(NULL)};
    const char* dir = NULL;
    const char* record = NULL;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--record") == 0 || strcmp(argv[i], "--fail") == 0) {
            if (i + 1 >= argc) {
                return usage_error("missing value after", argv[i]);
            }
            if (argv[i][2] == 'r') {
                record = argv[++i];
            } else if (parse_errno(argv[++i], &s.fail) != 0) {
                return usage_error("--fail takes 0..511 but not 38 (ENOSYS), not", argv[i]);
            }
        } else if (argv[i][0] == '-' || dir != NULL) {
            return usage_error("unexpected argument", argv[i]);
        } else {
            dir = argv[i];
        }
    }
    if (dir == NULL) {
        return usage_error("no directory given", NULL);
    }
    struct stat st;
    char* mount_point = realpath(dir, NULL);
    if (mount_point == NULL || stat(mount_point, &st) != 0 || !S_ISDIR(st.st_mode)) {
        fprintf(stderr, PROGRAM ": %s is not a directory\n", dir);
        return 2;
    }
    dir = mount_point;
    if (record != NULL && (s.record = fopen(record, "ae")) == NULL) {
        fprintf(stderr, PROGRAM ": cannot open the record file %s: %s\n", record, strerror(errno));
        return 1;
    }

    if (start_death_watcher(dir) != 0) {
        fprintf(stderr, PROGRAM ": cannot start the unmount watcher: %s\n", strerror(errno));
        return 1;
    }

    char* fuse_argv[] = {argv[0], "-o", "auto_unmount,fsname=" PROGRAM ",subtype=" PROGRAM, NULL};
    struct fuse_args args = FUSE_ARGS_INIT(3, fuse_argv);
    struct fuse_session* se = fuse_session_new(&args, &standin_ops, sizeof standin_ops, &s);
    int status = 1;
    int handlers = 0;
    if (se == NULL) {
        fprintf(stderr, PROGRAM ": cannot create the FUSE session\n");
    } else if (!(handlers = fuse_set_signal_handlers(se) == 0)) {
        fprintf(stderr, PROGRAM ": cannot install the signal handlers\n");
    } else if (fuse_session_mount(se, dir) != 0) {
        fprintf(stderr, PROGRAM ": cannot mount on %s\n", dir);
    } else {
        /* 0, or the number of the signal that ended it: both are a clean end. */
        int res = fuse_session_loop(se);
        if (res < 0) {
            fprintf(stderr, PROGRAM ": serving %s failed: %s\n", dir, strerror(-res));
        }
        status = res < 0 ? 1 : 0;
        fuse_session_unmount(se);
    }
    if (handlers) {
        fuse_remove_signal_handlers(se);
    }
    if (se != NULL) {
        fuse_session_destroy(se);
    }
    if (s.record != NULL) {
        fclose(s.record);
    }
    reap_mount_watchers();
    free(mount_point);
    return status;
}
