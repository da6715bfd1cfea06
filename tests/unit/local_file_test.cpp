// Host items as local file descriptions, on real files: the host's refusals, waits that end at
// their time-out, and host descriptors closed with the last holder. (Reads and writes at the
// description's offset, and which items offer seeking and resizing: the file behaviour tests.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <future>

#include "item_support.h"
#include "platform/error.h"
#include "platform/sync.h"

using namespace itemtest;
using Interfaces::MemDesc;

namespace {

std::string readSome(LocalFileDescriptionFSItem& item, uint64_t size, uint32_t timeoutMs = 0) {
  std::string out(size, '\0');
  out.resize(item.read(MemDesc::direct(out.data(), size), size, timeoutMs));
  return out;
}

uint64_t writeText(LocalFileDescriptionFSItem& item, const std::string& text) {
  return item.write(MemDesc::direct(text.data(), text.size()), text.size(), 0);
}

// Host descriptors of this process open on `path`.
int descriptorsOn(const std::string& path) {
  int count = 0;
  std::error_code error;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", error))
    if (std::filesystem::read_symlink(fd.path(), error) == path) ++count;
  return count;
}

TEST(LocalFileItem, RefusalsLeaveTheHostErrorAndNoDescriptorOpen) {
  TempDir tmp;
  std::string existing = tmp.file("there", "x");
  // A zero byte inside the path would have the host open "there" instead.
  std::string cut = existing + std::string("\0.txt", 5);
  for (auto [path, flags, error] : {std::tuple{tmp.path("missing"), O_RDONLY, ENOENT},
                                    std::tuple{tmp.dir(), O_WRONLY, EISDIR}, std::tuple{cut, O_RDONLY, EINVAL}}) {
    Error::set(0);
    EXPECT_FALSE(LocalFileDescriptionFSItem::open(String::create(path.data(), path.size()), flags, 0));
    EXPECT_EQ(Error::get(), static_cast<uint32_t>(error)) << path;
  }
  EXPECT_EQ(descriptorsOn(existing), 0);
  Ref<LocalFileDescriptionFSItem> item = openItem(existing, O_RDWR);
  EXPECT_EQ(descriptorsOn(existing), 1);
  item.reset();
  EXPECT_EQ(descriptorsOn(existing), 0) << "closed with its last holder";
}

TEST(LocalFileItem, AnItemThatCanBlockWaitsOnlyForItsTimeOut) {
  TempDir tmp;
  ASSERT_EQ(::mkfifo(tmp.path("fifo").c_str(), 0600), 0);
  // Opening a FIFO that has no writer does not wait for one.
  auto reader = std::async(std::launch::async, [&] { return openItem(tmp.path("fifo"), O_RDONLY); });
  bool prompt = reader.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
  if (!prompt) ::close(::open(tmp.path("fifo").c_str(), O_WRONLY));  // lets a waiting open end
  EXPECT_TRUE(prompt);
  Ref<LocalFileDescriptionFSItem> readEnd = reader.get();
  ASSERT_TRUE(readEnd);
  EXPECT_EQ(readEnd->descriptionType(), 9);
  Ref<LocalFileDescriptionFSItem> item = openItem(tmp.path("fifo"), O_RDWR);
  ASSERT_TRUE(item);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(readSome(*item, 10, 50), "");
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(45));
  EXPECT_LT(waited, std::chrono::milliseconds(2000));
  EXPECT_EQ(writeText(*item, "ping"), 4u);
  EXPECT_EQ(readSome(*item, 10, kForever), "ping");
}

}  // namespace
