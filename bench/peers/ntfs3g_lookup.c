/* Looks paths up with libntfs-3g: ntfs3g_lookup VOLUME PATHS record|acl ROUNDS
 *
 * One round warms up and is not counted. The sum is of creation times, or of the entries of access-control lists. */
#include "../Lookups.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

/* What the library's headers expect of their user's configuration, and their order. */
#define HAVE_TIME_H 1
#define HAVE_SYS_STAT_H 1
/* clang-format off */
#include <ntfs-3g/volume.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/security.h>
/* clang-format on */

enum { MOST_PATHS = 1000000, LONGEST_PATH = 4096, LONGEST_DESCRIPTOR = 65536 };

/* The parts of a security descriptor that have lists. */
#define ALL_PARTS                                                                                                      \
    (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION)

static unsigned long readPaths(char const* name, char** paths) {
    FILE* file = fopen(name, "r");
    char line[LONGEST_PATH];
    unsigned long count = 0;
    while (file != NULL && count < MOST_PATHS && fgets(line, sizeof line, file) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        paths[count++] = strdup(line);
    }
    if (file != NULL) {
        fclose(file);
    }
    return count;
}

static unsigned long long recordOf(ntfs_volume* volume, char const* path) {
    ntfs_inode* inode = ntfs_pathname_to_inode(volume, NULL, path);
    unsigned long long time;
    if (inode == NULL) {
        fprintf(stderr, "%s: %s\n", path, strerror(errno));
        exit(1);
    }
    time = (unsigned long long)sle64_to_cpu(inode->creation_time);
    ntfs_inode_close(inode);
    return time;
}

static unsigned entriesAt(unsigned char const* descriptor, unsigned long place) {
    unsigned offset;
    memcpy(&offset, descriptor + place, 4);
    return offset == 0 ? 0 : descriptor[offset + 4] | (unsigned)descriptor[offset + 5] << 8;
}

static unsigned long long listEntriesOf(struct SECURITY_API* security, char const* path) {
    static char descriptor[LONGEST_DESCRIPTOR];
    u32 size = 0;
    if (!ntfs_get_file_security(security, path, ALL_PARTS, descriptor, sizeof descriptor, &size)) {
        fprintf(stderr, "%s: %s\n", path, strerror(errno));
        exit(1);
    }
    return entriesAt((unsigned char*)descriptor, 12) + entriesAt((unsigned char*)descriptor, 16);
}

int main(int count, char** arguments) {
    static char* paths[MOST_PATHS];
    struct SECURITY_API* security = NULL;
    ntfs_volume* volume = NULL;
    unsigned long pathCount, rounds, round, i;
    unsigned long long sum = 0;
    long long begin = 0;
    if (count != 5) {
        fputs("usage: ntfs3g_lookup VOLUME PATHS record|acl ROUNDS\n", stderr);
        return 2;
    }
    pathCount = readPaths(arguments[2], paths);
    rounds = strtoul(arguments[4], NULL, 10);
    if (strcmp(arguments[3], "acl") == 0) {
        security = ntfs_initialize_file_security(arguments[1], NTFS_MNT_RDONLY);
    } else {
        volume = ntfs_mount(arguments[1], NTFS_MNT_RDONLY);
    }
    if ((security == NULL && volume == NULL) || pathCount == 0) {
        fprintf(stderr, "%s: cannot be opened: %s\n", arguments[1], strerror(errno));
        return 1;
    }
    for (round = 0; round <= rounds; ++round) {
        begin = round == 1 ? cpuMicroseconds() : begin;
        sum = 0;
        for (i = 0; i < pathCount; ++i) {
            sum += security != NULL ? listEntriesOf(security, paths[i]) : recordOf(volume, paths[i]);
        }
    }
    printLookups(pathCount, rounds, cpuMicroseconds() - begin, sum);
    return 0; /* the process's end closes the volume, which nothing has changed */
}
