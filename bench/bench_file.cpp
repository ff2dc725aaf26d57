/*
 * The file library against the system tools and calls that do the same work, in one run:
 * tree copy against `cp -a`, tree deletion against `rm -rf`, a large file copy against
 * `cp --reflink=never`, gathered vectored writes against plain writev, cached error texts
 * against strerror_r, and the atomic update with its two syncs against the same steps
 * without them (the price of durability).
 *
 * Trees and files live on tmpfs (/dev/shm) unless BENCH_FILE_DIR names another place; the
 * atomic update runs in BENCH_FILE_DISK_DIR (default /var/tmp), where a sync reaches a disk.
 */
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "err.h"
#include "file.h"
#include "fileIO.h"
#include "msg.h"

namespace {

constexpr int kSmallFiles = 20000;
constexpr int kFilesPerDir = 100;
constexpr int kLargeFiles = 20;
constexpr size_t kLargeSize = 10 << 20;  // 20 x 10 MiB = 200 MiB
constexpr size_t kBigFile = 1ull << 30;

std::string BaseDir()
{
   const char *dir = getenv("BENCH_FILE_DIR");
   return dir != nullptr ? dir : "/dev/shm";
}

std::string DiskDir()
{
   const char *dir = getenv("BENCH_FILE_DISK_DIR");
   return dir != nullptr ? dir : "/var/tmp";
}

void Run(const std::string &cmd)
{
   if (system(cmd.c_str()) != 0) {
      abort();
   }
}

void WriteBytes(const std::string &path, size_t size, char fill)
{
   int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
   std::vector<char> block(1 << 20, fill);
   for (size_t done = 0; done < size; done += block.size()) {
      if (write(fd, block.data(), std::min(block.size(), size - done)) < 0) {
         abort();
      }
   }
   close(fd);
}

/* The source tree, built once per process. */
const std::string &SourceTree()
{
   static std::string root;
   if (root.empty()) {
      root = BaseDir() + "/bench_file_src." + std::to_string(getpid());
      mkdir(root.c_str(), 0755);
      for (int i = 0; i < kSmallFiles; i++) {
         std::string dir = root + "/d" + std::to_string(i / kFilesPerDir);
         if (i % kFilesPerDir == 0) {
            mkdir(dir.c_str(), 0755);
            symlink("../d0/f0", (dir + "/link").c_str());
         }
         WriteBytes(dir + "/f" + std::to_string(i), 100 + (i % 7) * 300, 's');
      }
      mkdir((root + "/large").c_str(), 0755);
      for (int i = 0; i < kLargeFiles; i++) {
         WriteBytes(root + "/large/l" + std::to_string(i), kLargeSize, 'l');
      }
   }
   return root;
}

std::string Scratch(const char *what)
{
   return BaseDir() + "/bench_file_" + what + "." + std::to_string(getpid());
}

void BM_CopyTree(benchmark::State &state)
{
   const std::string &src = SourceTree();
   std::string dst = Scratch("copy");
   for (auto _ : state) {
      state.PauseTiming();
      Run("rm -rf '" + dst + "'");
      mkdir(dst.c_str(), 0755);
      state.ResumeTiming();
      if (!File_CopyTree(src.c_str(), dst.c_str(), true, false)) {
         state.SkipWithError("copy failed");
      }
   }
   Run("rm -rf '" + dst + "'");
}

void BM_CopyTreePeerCpArchive(benchmark::State &state)
{
   const std::string &src = SourceTree();
   std::string dst = Scratch("copy");
   for (auto _ : state) {
      state.PauseTiming();
      Run("rm -rf '" + dst + "'");
      mkdir(dst.c_str(), 0755);
      state.ResumeTiming();
      Run("cp -a '" + src + "/.' '" + dst + "'");
   }
   Run("rm -rf '" + dst + "'");
}

void BM_DeleteTree(benchmark::State &state)
{
   const std::string &src = SourceTree();
   std::string dst = Scratch("delete");
   for (auto _ : state) {
      state.PauseTiming();
      Run("cp -a '" + src + "' '" + dst + "'");
      state.ResumeTiming();
      if (!File_DeleteDirectoryTree(dst.c_str())) {
         state.SkipWithError("delete failed");
      }
   }
}

void BM_DeleteTreePeerRmRf(benchmark::State &state)
{
   const std::string &src = SourceTree();
   std::string dst = Scratch("delete");
   for (auto _ : state) {
      state.PauseTiming();
      Run("cp -a '" + src + "' '" + dst + "'");
      state.ResumeTiming();
      Run("rm -rf '" + dst + "'");
   }
}

const std::string &BigFile()
{
   static std::string path;
   if (path.empty()) {
      path = Scratch("big");
      WriteBytes(path, kBigFile, 'b');
   }
   return path;
}

void BM_CopyFile(benchmark::State &state)
{
   BigFile();
   std::string dst = Scratch("bigcopy");
   for (auto _ : state) {
      if (!File_Copy(BigFile().c_str(), dst.c_str(), true)) {
         state.SkipWithError("copy failed");
      }
      state.PauseTiming();
      unlink(dst.c_str());
      state.ResumeTiming();
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBigFile));
}

void BM_CopyFilePeerCp(benchmark::State &state)
{
   BigFile();
   std::string dst = Scratch("bigcopy");
   for (auto _ : state) {
      Run("cp --reflink=never '" + BigFile() + "' '" + dst + "'");
      state.PauseTiming();
      unlink(dst.c_str());
      state.ResumeTiming();
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBigFile));
}

struct Pieces {
   std::vector<std::string> data;
   std::vector<struct iovec> v;
   Pieces()
   {
      for (int i = 0; i < 64; i++) {
         data.emplace_back(256, static_cast<char>('a' + i % 26));
      }
      for (auto &d : data) {
         v.push_back({d.data(), d.size()});
      }
   }
};

void BM_Writev64x256(benchmark::State &state)
{
   Pieces p;
   std::string path = Scratch("writev");
   FileIODescriptor fd;
   FileIO_Open(&fd, path.c_str(), FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE_EMPTY);
   for (auto _ : state) {
      FileIO_Seek(&fd, 0, SEEK_SET);
      size_t done = 0;
      FileIO_Writev(&fd, p.v.data(), 64, 64 * 256, &done);
   }
   FileIO_Close(&fd);
   unlink(path.c_str());
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * 64 * 256));
}

void BM_Writev64x256PeerWritev(benchmark::State &state)
{
   Pieces p;
   std::string path = Scratch("writev");
   int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
   for (auto _ : state) {
      lseek(fd, 0, SEEK_SET);
      benchmark::DoNotOptimize(writev(fd, p.v.data(), 64));
   }
   close(fd);
   unlink(path.c_str());
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * 64 * 256));
}

void BM_Errno2String(benchmark::State &state)
{
   int n = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(Err_Errno2String(1 + n++ % 40));
   }
}

void BM_Errno2StringPeerStrerrorR(benchmark::State &state)
{
   int n = 0;
   char buf[2048];
   for (auto _ : state) {
      benchmark::DoNotOptimize(strerror_r(1 + n++ % 40, buf, sizeof buf));
   }
}

/* One atomic replacement of a 4 KiB file: temporary sibling, write, sync, rename, sync. */
void BM_AtomicUpdate(benchmark::State &state)
{
   std::string path = DiskDir() + "/bench_file_atomic." + std::to_string(getpid());
   WriteBytes(path, 4096, 'o');
   std::vector<char> data(4096, 'n');
   for (auto _ : state) {
      FileIODescriptor current;
      FileIODescriptor temp;
      FileIO_Open(&current, path.c_str(), FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN);
      FileIO_AtomicTempFile(&current, &temp);
      FileIO_Write(&temp, data.data(), data.size(), nullptr);
      if (!FileIO_AtomicUpdateEx(&temp, &current)) {
         state.SkipWithError("update failed");
      }
      FileIO_Close(&current);
   }
   unlink(path.c_str());
}

/* The same steps without the two syncs. */
void BM_AtomicUpdatePeerNoSync(benchmark::State &state)
{
   std::string path = DiskDir() + "/bench_file_atomic." + std::to_string(getpid());
   std::string temp = path + "~";
   WriteBytes(path, 4096, 'o');
   std::vector<char> data(4096, 'n');
   for (auto _ : state) {
      int cur = open(path.c_str(), O_RDONLY);
      struct stat st;
      fstat(cur, &st);
      unlink(temp.c_str());
      int fd = open(temp.c_str(), O_RDWR | O_CREAT | O_EXCL, st.st_mode & 07777);
      fchmod(fd, st.st_mode);
      fchown(fd, st.st_uid, st.st_gid);
      if (write(fd, data.data(), data.size()) < 0 || rename(temp.c_str(), path.c_str()) != 0) {
         state.SkipWithError("update failed");
      }
      close(cur);
      close(fd);
   }
   unlink(path.c_str());
}

BENCHMARK(BM_CopyTree)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_CopyTreePeerCpArchive)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_DeleteTree)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_DeleteTreePeerRmRf)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_CopyFile)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_CopyFilePeerCp)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_Writev64x256);
BENCHMARK(BM_Writev64x256PeerWritev);
BENCHMARK(BM_Errno2String);
BENCHMARK(BM_Errno2StringPeerStrerrorR);
BENCHMARK(BM_AtomicUpdate)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_AtomicUpdatePeerNoSync)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

int main(int argc, char **argv)
{
   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   Msg_Reset(false);
   Run("rm -rf '" + BaseDir() + "/bench_file_src." + std::to_string(getpid()) + "' '" + BaseDir() +
       "/bench_file_big." + std::to_string(getpid()) + "'");
   return 0;
}
