/* The peer of `rvpmap catalog --extents`: what a plain C program over libext2fs takes to walk every
 * directory of an ext volume, read every inode, list its extents and print a line a file.
 *
 *     bare_walk IMAGE
 */
#include <ext2fs/ext2fs.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

struct walk {
    ext2_filsys fs;
    char path[65536];
    size_t length;
};

static void walk_directory(struct walk *walk, ext2_ino_t number);

static void print_extents(struct walk *walk, ext2_ino_t number, struct ext2_inode *inode)
{
    ext2_extent_handle_t handle;
    struct ext2fs_extent extent;
    errcode_t error;

    if (!(inode->i_flags & EXT4_EXTENTS_FL) ||
        ext2fs_extent_open2(walk->fs, number, inode, &handle) != 0) {
        return;
    }
    error = ext2fs_extent_get(handle, EXT2_EXTENT_ROOT, &extent);
    for (; error == 0; error = ext2fs_extent_get(handle, EXT2_EXTENT_NEXT, &extent)) {
        if (extent.e_flags & EXT2_EXTENT_FLAGS_LEAF) {
            printf(" %llu:%llu+%u", (unsigned long long)extent.e_lblk,
                   (unsigned long long)extent.e_pblk, extent.e_len);
        }
    }
    ext2fs_extent_free(handle);
}

static void print_file(struct walk *walk, ext2_ino_t number)
{
    struct ext2_inode inode;

    if (ext2fs_read_inode(walk->fs, number, &inode) != 0) {
        fprintf(stderr, "%s: inode %u cannot be read\n", walk->path, number);
        return;
    }
    printf("%s %u %o %u %u %u %llu %u %u %u %u", walk->length != 0 ? walk->path : "/", number,
           inode.i_mode, inode.i_links_count, inode_uid(inode), inode_gid(inode),
           (unsigned long long)EXT2_I_SIZE(&inode), inode.i_blocks, inode.i_atime, inode.i_mtime,
           inode.i_ctime);
    print_extents(walk, number, &inode);
    putchar('\n');
    if (LINUX_S_ISDIR(inode.i_mode)) {
        walk_directory(walk, number);
    }
}

static int visit(ext2_ino_t directory, int kind, struct ext2_dir_entry *entry, int offset,
                 int block_size, char *buffer, void *context)
{
    struct walk *walk = context;
    const size_t before = walk->length;
    const size_t name = (size_t)ext2fs_dirent_name_len(entry);

    (void)directory, (void)offset, (void)block_size, (void)buffer;
    if (kind != DIRENT_OTHER_FILE || before + name + 2 > sizeof walk->path) {
        return 0;
    }
    walk->path[before] = '/';
    memcpy(walk->path + before + 1, entry->name, name);
    walk->length = before + 1 + name;
    walk->path[walk->length] = '\0';
    print_file(walk, entry->inode);
    walk->length = before;
    return 0;
}

static void walk_directory(struct walk *walk, ext2_ino_t number)
{
    ext2fs_dir_iterate2(walk->fs, number, 0, NULL, visit, walk);
}

int main(int argc, char **argv)
{
    static struct walk walk;

    if (argc != 2) {
        fprintf(stderr, "usage: bare_walk IMAGE\n");
        return 2;
    }
    if (ext2fs_open(argv[1], EXT2_FLAG_64BITS, 0, 0, unix_io_manager, &walk.fs) != 0) {
        fprintf(stderr, "%s: not an ext volume\n", argv[1]);
        return 1;
    }
    setvbuf(stdout, NULL, _IOFBF, 128 * 1024);
    print_file(&walk, EXT2_ROOT_INO);
    ext2fs_close_free(&walk.fs);
    return fflush(stdout) != 0;
}
