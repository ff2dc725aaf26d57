/*
 * A tree copy plus the metadata copy of every file and directory, compared with `cp -a` on a
 * tree with links, empty directories, sparse and large files, extended attributes, odd names,
 * modes, owners and old times.
 */
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "file.h"
#include "fileTestUtil.h"
#include "msg.h"
#include "testSupport.h"

using filetest::WriteFile;
using testsupport::ScratchDir;

namespace {

struct Entry {
   std::string description;  // type, metadata and contents
   long long blocks = 0;
};

std::string Xattrs(const std::string &path)
{
   char list[4096];
   ssize_t n = llistxattr(path.c_str(), list, sizeof list);
   std::map<std::string, std::string> values;
   for (ssize_t at = 0; at < n; at += static_cast<ssize_t>(strlen(list + at)) + 1) {
      char value[4096];
      ssize_t len = lgetxattr(path.c_str(), list + at, value, sizeof value);
      values[list + at] = len >= 0 ? std::string(value, static_cast<size_t>(len)) : "?";
   }
   std::string out;
   for (const auto &[k, v] : values) {
      out += k + "=" + v + ";";
   }
   return out;
}

void Describe(const std::string &root, const std::string &rel, std::map<std::string, Entry> &out)
{
   std::string path = root + rel;
   struct stat st;
   ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
   std::ostringstream d;
   Entry e;
   if (S_ISLNK(st.st_mode)) {
      char target[4096];
      ssize_t n = readlink(path.c_str(), target, sizeof target);
      d << "link " << std::string(target, static_cast<size_t>(n));
   } else {
      d << (S_ISDIR(st.st_mode) ? "dir " : "file ") << std::oct << (st.st_mode & 07777) << std::dec
        << " " << st.st_uid << ":" << st.st_gid << " " << st.st_mtim.tv_sec << "."
        << st.st_mtim.tv_nsec << " " << Xattrs(path);
      if (S_ISREG(st.st_mode)) {
         d << " size " << st.st_size << " data "
           << std::hash<std::string>()(filetest::ReadFile(path));
         e.blocks = st.st_blocks;
      }
   }
   e.description = d.str();
   out[rel.empty() ? "." : rel] = e;
   if (S_ISDIR(st.st_mode)) {
      DIR *dir = opendir(path.c_str());
      ASSERT_NE(dir, nullptr);
      while (struct dirent *de = readdir(dir)) {
         std::string name = de->d_name;
         if (name != "." && name != "..") {
            Describe(root, rel + "/" + name, out);
         }
      }
      closedir(dir);
   }
}

/* Applies the metadata copy to every file and directory of the copied tree, deepest first. */
void CopyMetadata(const std::string &src, const std::string &dst)
{
   struct stat st;
   ASSERT_EQ(lstat(src.c_str(), &st), 0);
   if (S_ISLNK(st.st_mode)) {
      return;
   }
   if (S_ISDIR(st.st_mode)) {
      DIR *dir = opendir(src.c_str());
      while (struct dirent *de = readdir(dir)) {
         std::string name = de->d_name;
         if (name != "." && name != "..") {
            CopyMetadata(src + "/" + name, dst + "/" + name);
         }
      }
      closedir(dir);
   }
   int in = open(src.c_str(), O_RDONLY | O_NOFOLLOW);
   int out = open(dst.c_str(), (S_ISDIR(st.st_mode) ? O_RDONLY : O_WRONLY) | O_NOFOLLOW);
   ASSERT_GE(in, 0);
   ASSERT_GE(out, 0) << dst;
   EXPECT_TRUE(File_CopyFdAll(in, out)) << dst << " " << strerror(errno);
   close(in);
   close(out);
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
   for (const std::string &name : std::vector<std::string>{
            "sp ace", "new\nline", "bad\xff\xfe", "-dash", std::string(255, 'L'), "caf\xc3\xa9"}) {
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
   if (filetest::IsRoot()) {
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
   ASSERT_EQ(filetest::Shell("cp -a '" + src + "' '" + viaCp + "'"), 0);
   std::string ours = scratch / "ours";
   mkdir(ours.c_str(), 0700);
   ASSERT_TRUE(File_CopyTree(src.c_str(), ours.c_str(), true, false));
   CopyMetadata(src, ours);
   Msg_Reset(false);

   std::map<std::string, Entry> expected;
   std::map<std::string, Entry> got;
   Describe(viaCp, "", expected);
   Describe(ours, "", got);
   ASSERT_EQ(got.size(), expected.size());
   for (const auto &[rel, e] : expected) {
      ASSERT_EQ(got.count(rel), 1u) << rel;
      EXPECT_EQ(got[rel].description, e.description) << rel;
      // Holes stay holes: no more space than the archive copy needs, give or take a block.
      EXPECT_LE(got[rel].blocks, e.blocks + 8) << rel;
   }
   EXPECT_LT(got["/sparse"].blocks, 1024);
   if (xattrs) {
      EXPECT_NE(got["/large"].description.find("user.origin=test"), std::string::npos);
   }
}

}  // namespace
