/*
 * A tree copy plus the metadata copy of every file and directory, compared with `cp -a` on a
 * tree with links, empty directories, sparse and large files, extended attributes, odd names,
 * modes, owners and old times.
 */
#include <ftw.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cstring>
#include <string>

#include "file.h"
#include "fileTestUtil.h"

using namespace filetest;

namespace {

/* What a shell command prints. */
std::string Output(const std::string &command)
{
   std::string out;
   FILE *p = popen(command.c_str(), "r");
   char buf[4096];
   for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) {
      out.append(buf, n);
   }
   pclose(p);
   return out;
}

/* Type, mode, owner and time of every entry (the target of a link), sorted by name. */
std::string Listing(const std::string &dir)
{
   return Output("cd '" + dir + "' && find . \\( -type l -printf 'link %l|%P\\0' \\) -o " +
                 "-printf '%y %m %U:%G %T@|%P\\0' | sort -z");
}

long long Blocks(const std::string &path)
{
   return atoll(Output("du -s -B512 '" + path + "'").c_str());
}

std::string Xattr(const std::string &path, const char *name)
{
   char value[64];
   ssize_t n = lgetxattr(path.c_str(), name, value, sizeof value);
   return n >= 0 ? std::string(value, static_cast<size_t>(n)) : "";
}

std::string gSrc;
std::string gDst;

/* Applies the metadata copy to one file or directory of the copied tree. */
int CopyMetadata(const char *path, const struct stat *st, int, struct FTW *)
{
   if (!S_ISLNK(st->st_mode)) {
      std::string dst = gDst + (path + gSrc.size());
      int in = open(path, O_RDONLY | O_NOFOLLOW);
      int out = open(dst.c_str(), (S_ISDIR(st->st_mode) ? O_RDONLY : O_WRONLY) | O_NOFOLLOW);
      EXPECT_TRUE(in >= 0 && out >= 0 && File_CopyFdAll(in, out)) << dst << " " << strerror(errno);
      close(in);
      close(out);
   }
   return 0;
}

TEST(FileCopyDiff, TreeAndMetadataMatchCpArchive)
{
   ScratchDir scratch;
   std::string src = scratch / "src";
   mkdir(src.c_str(), 0755);
   mkdir((src + "/empty").c_str(), 0700);
   mkdir((src + "/sub").c_str(), 0750);
   mkdir((src + "/sub/deeper").c_str(), 0755);
   WriteFile(src + "/sub/deeper/file", "deep");
   symlink("../sub/deeper/file", (src + "/sub/rel").c_str());
   symlink("/nonexistent/target", (src + "/dangling").c_str());
   symlink("sub", (src + "/dirlink").c_str());
   for (const std::string &name :
        {std::string("sp ace"), std::string("new\nline"), std::string("bad\xff\xfe"),
         std::string("-dash"), std::string(255, 'L'), std::string("caf\xc3\xa9")}) {
      WriteFile(src + "/" + name, "odd " + name);
   }
   // Sparse: data at the start and at 5 MiB of a 10 MiB file.
   int fd = open((src + "/sparse").c_str(), O_WRONLY | O_CREAT, 0644);
   ASSERT_EQ(pwrite(fd, "head", 4, 0), 4);
   ASSERT_EQ(pwrite(fd, "middle", 6, 5 << 20), 6);
   ASSERT_EQ(ftruncate(fd, 10 << 20), 0);
   close(fd);
   std::string large(6 << 20, '\0');
   for (size_t i = 0; i < large.size(); i++) {
      large[i] = static_cast<char>((i * 2654435761u) >> 13);
   }
   WriteFile(src + "/large", large);
   chmod((src + "/large").c_str(), 0751);
   bool xattrs = setxattr((src + "/large").c_str(), "user.origin", "test", 4, 0) == 0 &&
                 setxattr((src + "/sub").c_str(), "user.dir", "d", 1, 0) == 0;
   if (geteuid() == 0) {
      chown((src + "/sub/deeper/file").c_str(), 65534, 65534);
      chown((src + "/empty").c_str(), 65534, 0);
      chmod((src + "/sub/deeper/file").c_str(), 02755);
   }
   struct timespec old[2] = {{1000000000, 123456789}, {1100000000, 987654321}};
   for (const char *rel :
        {"/large", "/sparse", "/sub/deeper/file", "/empty", "/sub/deeper", "/sub", ""}) {
      utimensat(AT_FDCWD, (src + rel).c_str(), old, AT_SYMLINK_NOFOLLOW);
   }

   std::string viaCp = scratch / "cp";
   ASSERT_EQ(system(("cp -a '" + src + "' '" + viaCp + "'").c_str()), 0);
   gSrc = src;
   gDst = scratch / "ours";
   mkdir(gDst.c_str(), 0700);
   ASSERT_TRUE(File_CopyTree(src.c_str(), gDst.c_str(), true, false));
   nftw(src.c_str(), CopyMetadata, 16, FTW_DEPTH | FTW_PHYS);
   Msg_Reset(false);

   EXPECT_EQ(system(("diff -r --no-dereference '" + viaCp + "' '" + gDst + "'").c_str()), 0);
   std::string listing = Listing(viaCp);
   EXPECT_EQ(Listing(gDst), listing);
   EXPECT_NE(listing.find(" 1100000000.987654321"), std::string::npos) << listing;
   EXPECT_NE(listing.find("link ../sub/deeper/file|sub/rel"), std::string::npos);
   // Holes stay holes: no more space than the archive copy needs, give or take a block a file.
   EXPECT_LE(Blocks(gDst), Blocks(viaCp) + 100);
   EXPECT_LT(Blocks(gDst + "/sparse"), 1024);
   if (xattrs) {
      EXPECT_EQ(Xattr(gDst + "/large", "user.origin"), "test");
      EXPECT_EQ(Xattr(gDst + "/sub", "user.dir"), "d");
   }
}

}  // namespace
