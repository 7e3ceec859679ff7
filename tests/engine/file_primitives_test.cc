#include "sync/engine/file_primitives.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

using testing::TempDir;

TEST(Sha256, FileDigestIsTheSameForAnyChunkSizeAndAMissingFileFails) {
  EXPECT_EQ(_sha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  TempDir dir;
  std::string content;
  for (int i = 0; i < 100000; ++i) content += static_cast<char>(i * 7 + i / 256);
  write_file(dir / "f", content);
  const std::string whole = _sha256(content);
  for (std::size_t chunk : {std::size_t{1}, std::size_t{4095}, std::size_t{65536}, std::size_t{0}}) {
    EXPECT_EQ(_sha256_file(dir / "f", chunk), whole) << chunk;
  }
  write_file(dir / "empty", "");
  EXPECT_EQ(_sha256_file(dir / "empty"), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_THROW(_sha256_file(dir / "absent"), FileNotFoundError);
  EXPECT_THROW(_sha256_file(dir.path()), OSError);  // a directory cannot be read
}

TEST(AtomicWrite, CreatesParentsReplacesALeftoverTemporaryAndFailsLeavingTheTarget) {
  TempDir dir;
  const std::string target = dir / "a/b/c/state.json";
  _atomic_write(target, "first");
  EXPECT_EQ(read_file(target), "first");
  // A crash left a longer .tmp behind: the next write truncates and consumes it.
  write_file(target + ".tmp", "leftover from a crash, much longer than the new content");
  _atomic_write(target, "second");
  EXPECT_EQ(read_file(target), "second");
  EXPECT_FALSE(path_exists(target + ".tmp"));
  // A directory standing at the temporary name makes the write fail.
  std::filesystem::create_directory(target + ".tmp");
  EXPECT_THROW(_atomic_write(target, "third"), OSError);
  EXPECT_EQ(read_file(target), "second");
}

}  // namespace
}  // namespace quillmarsh::sync
