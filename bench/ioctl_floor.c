/*
 * The floor under a device map: the same SCSI ioctls on the same disks as an enumeration, with
 * nothing around them. For each whole sd disk of /proc/partitions: open it O_RDWR|O_NONBLOCK
 * and close it again (the enumeration's first look at the node), then open it, INQUIRY for the
 * standard data, SCSI_IOCTL_GET_IDLUN, INQUIRY for VPD page 0x00 and for each of the pages
 * 0x83, 0x80, 0xC0, 0xC8, 0x10, 0x11, 0xD0 that page 0x00 lists, and close.
 *
 *   ioctl_floor [--single-open] [--config-probe]
 *       runs the loop once and prints what it did and the loop's wall microseconds
 *   ioctl_floor --time N OUT -- CMD ...
 *       runs CMD N times (output to OUT) and prints the wall and CPU microseconds of each run
 *
 * --single-open leaves out the first open and close, and --config-probe tries to open the
 * plug-in's configuration file before each open of a disk, as the library's device handle does:
 * they show what those two steps cost.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define SEND_COMMAND 1   /* SCSI_IOCTL_SEND_COMMAND */
#define GET_IDLUN 0x5382 /* SCSI_IOCTL_GET_IDLUN */
#define BUFFER_SIZE 512  /* input length, output length, then the CDB and the answer */
#define OUTPUT_LENGTH 480
#define ALLOCATION_LENGTH 0xFC

static const unsigned char kFixedPages[] = {0x83, 0x80, 0xC0, 0xC8, 0x10, 0x11, 0xD0};

static long g_ioctls;
static long g_opens;
static int g_configProbe;

/* The device handle reads its tuning values from this file before every open. */
static int openDisk(const char* path)
{
    if (g_configProbe) {
        FILE* config = fopen("/etc/devicefi/devicefi.ini", "r");
        if (config) {
            fclose(config);
        }
    }
    ++g_opens;
    return open(path, O_RDWR | O_NONBLOCK);
}

static void putLittleEndian32(unsigned char* at, unsigned int value)
{
    for (int i = 0; i < 4; ++i) {
        at[i] = (unsigned char)(value >> (8 * i));
    }
}

/* INQUIRY (EVPD when `vpd`) into `answer`; the length the device reports, 0 on failure. */
static unsigned int inquiry(int fd, int vpd, unsigned char page, unsigned char* answer)
{
    unsigned char buffer[BUFFER_SIZE];
    memset(buffer, 0, sizeof buffer);
    putLittleEndian32(buffer, 0);
    putLittleEndian32(buffer + 4, OUTPUT_LENGTH);
    unsigned char* cdb = buffer + 8;
    cdb[0] = 0x12;
    cdb[1] = vpd ? 1 : 0;
    cdb[2] = page;
    cdb[4] = ALLOCATION_LENGTH;
    ++g_ioctls;
    if (ioctl(fd, SEND_COMMAND, buffer) != 0) {
        return 0;
    }
    memcpy(answer, buffer + 8, ALLOCATION_LENGTH);
    unsigned int size = vpd ? answer[3] + 4u : answer[4] + 5u;
    return size < ALLOCATION_LENGTH ? size : ALLOCATION_LENGTH;
}

static void queryDisk(const char* path, int probeOpen)
{
    if (probeOpen) {
        int probe = openDisk(path);
        if (probe < 0) {
            return;
        }
        close(probe);
    }
    int fd = openDisk(path);
    if (fd < 0) {
        return;
    }
    unsigned char answer[ALLOCATION_LENGTH];
    unsigned int length = inquiry(fd, 0, 0, answer);
    if (length < 32 || answer[0] != 0) {
        close(fd);
        return;
    }
    unsigned int idlun[2] = {0, 0};
    ++g_ioctls;
    ioctl(fd, GET_IDLUN, idlun);
    unsigned char supported[ALLOCATION_LENGTH];
    length = inquiry(fd, 1, 0, supported);
    unsigned int count = length > 3 && supported[3] + 4u <= length ? supported[3] : 0;
    for (size_t p = 0; p < sizeof kFixedPages; ++p) {
        for (unsigned int i = 0; i < count; ++i) {
            if (supported[4 + i] == kFixedPages[p]) {
                inquiry(fd, 1, kFixedPages[p], answer);
                break;
            }
        }
    }
    close(fd);
}

static int runLoop(int probeOpen)
{
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    FILE* partitions = fopen("/proc/partitions", "r");
    if (!partitions) {
        perror("/proc/partitions");
        return 1;
    }
    char line[255];
    int disks = 0;
    while (fgets(line, sizeof line, partitions)) {
        char name[10] = {0};
        int major, minor, blocks;
        if (!strstr(line, "sd") ||
            sscanf(line, " %d %d %d %8s", &major, &minor, &blocks, name) != 4 ||
            strncmp(name, "sd", 2) != 0 ||
            (name[strlen(name) - 1] >= '0' && name[strlen(name) - 1] <= '9')) {
            continue;
        }
        char path[32];
        snprintf(path, sizeof path, "/dev/%s", name);
        queryDisk(path, probeOpen);
        ++disks;
    }
    fclose(partitions);
    clock_gettime(CLOCK_MONOTONIC, &end);
    printf("disks %d opens %ld ioctls %ld loop_us %.0f\n", disks, g_opens, g_ioctls,
           (double)(end.tv_sec - start.tv_sec) * 1e6 + (double)(end.tv_nsec - start.tv_nsec) / 1e3);
    return 0;
}

static double microseconds(const struct timeval* t)
{
    return (double)t->tv_sec * 1e6 + (double)t->tv_usec;
}

static int timeCommand(int repeat, const char* out, char** command)
{
    for (int run = 0; run < repeat; ++run) {
        struct timespec start, end;
        clock_gettime(CLOCK_MONOTONIC, &start);
        pid_t child = fork();
        if (child == 0) {
            int fd = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd >= 0) {
                dup2(fd, 1);
                dup2(fd, 2);
                close(fd);
            }
            execvp(command[0], command);
            _exit(127);
        }
        int status = 0;
        struct rusage usage;
        if (child < 0 || wait4(child, &status, 0, &usage) < 0) {
            perror("fork");
            return 1;
        }
        clock_gettime(CLOCK_MONOTONIC, &end);
        double wall =
            (double)(end.tv_sec - start.tv_sec) * 1e6 + (double)(end.tv_nsec - start.tv_nsec) / 1e3;
        printf("run %d exit %d wall_us %.0f user_us %.0f sys_us %.0f\n", run,
               WIFEXITED(status) ? WEXITSTATUS(status) : -1, wall, microseconds(&usage.ru_utime),
               microseconds(&usage.ru_stime));
        fflush(stdout);
    }
    return 0;
}

int main(int argc, char** argv)
{
    if (argc >= 5 && strcmp(argv[1], "--time") == 0 && strcmp(argv[4], "--") == 0 && argc > 5) {
        return timeCommand(atoi(argv[2]), argv[3], argv + 5);
    }
    int probeOpen = 1;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--single-open") == 0) {
            probeOpen = 0;
        } else if (strcmp(argv[i], "--config-probe") == 0) {
            g_configProbe = 1;
        } else {
            fprintf(
                stderr,
                "usage: ioctl_floor [--single-open] [--config-probe] | --time N OUT -- CMD ...\n");
            return 2;
        }
    }
    return runLoop(probeOpen);
}
