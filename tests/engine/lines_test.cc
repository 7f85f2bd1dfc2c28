// The lines of standard output, byte for byte, and how they are written.
#include "engine/lines.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "engine/channel.h"
#include "tests/support/command.h"

using namespace ZorvEngine;

TEST(Lines, AreAsDocumented) {
  EXPECT_EQ("generation 18446744073709551615\n", GenerationLine(UINT64_MAX));
  EXPECT_EQ("total 4096 bytes\n", TotalLine(4096));
  EXPECT_EQ("processed 0 bytes\n", ProcessedLine(0));
  EXPECT_EQ("exclusive 16384 bytes\n", ExclusiveLine(16384));
  EXPECT_EQ("subvol(257) 4096 bytes\n", SubvolumeLine(257, 4096));
  EXPECT_EQ("ERROR: a?b\n", ErrorLine("a\nb"));
  EXPECT_EQ("NOTE: a?b\n", NoteLine("a\tb"));
}

TEST(LinesUnavailable, HasNoDigitsAndNoControlCharacters) {
  EXPECT_EQ("exclusive sizes unavailable: subvolume # of raid# is gone?really\n",
            UnavailableLine("subvolume 257 of raid10 is gone\nreally"));
  EXPECT_EQ("exclusive sizes unavailable: \xC3\xA9?\n", UnavailableLine("\xC3\xA9\x7F"));
}

TEST(LinesUnavailable, HasAtMostTwoHundredBytes) {
  for (const std::string& piece : {std::string("x"), std::string("\xC3\xA9"),
                                   std::string("\xE2\x82\xAC"), std::string("\xF0\x9F\x93\xB7")}) {
    std::string reason;
    for (int i = 0; i < 300; ++i) reason += piece;
    const std::string line = UnavailableLine(reason);
    EXPECT_LE(line.size(), 200u);
    EXPECT_GT(line.size(), 195u);
    const std::string shown = line.substr(29, line.size() - 30);
    EXPECT_EQ(0u, shown.size() % piece.size()) << "cut inside a character";
  }
}

// What the reader of the lines does with a failure: no number comes out of it.
TEST(LinesUnavailable, IsNoNumberToAScanner) {
  unsigned long long bytes = 7;
  EXPECT_EQ(0, sscanf(UnavailableLine("257 4096 bytes").c_str(), "exclusive %llu bytes", &bytes));
  EXPECT_EQ(7u, bytes);
}

TEST(LinesWriteLine, SaysThatTheReaderHasGone) {
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  (void)signal(SIGPIPE, SIG_IGN);
  UniqueFd write(ends[1]);
  UniqueFd(ends[0]).Reset();
  EXPECT_FALSE(WriteLine(write.Get(), "subvol(257) 4096 bytes\n"));
  EXPECT_EQ(EPIPE, errno);
}

TEST(LinesWriteLine, WaitsForRoomInAPipeThatDoesNotBlock) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_NONBLOCK));
  UniqueFd read(ends[0]);
  UniqueFd write(ends[1]);
  const std::string filler(4096, 'x');
  while (::write(write.Get(), filler.data(), filler.size()) > 0) {
  }
  EXPECT_EQ(0, ZorvTest::InChild([&] {
              const pid_t child = fork();
              if (child == 0) {
                usleep(50000);
                char buffer[65536];
                while (::read(read.Get(), buffer, sizeof buffer) > 0) {
                }
                _exit(0);
              }
              return WriteLine(write.Get(), "processed 1 bytes\n") ? 0 : 1;
            }));
}

TEST(LinesWriteLine, TakesBackALineThatAFullDiskHasCut) {
  ASSERT_EQ(0, mkdir("/tmp/small", 0755));
  ASSERT_EQ(0, mount("tmpfs", "/tmp/small", "tmpfs", 0, "size=4096"));
  const UniqueFd fd(open("/tmp/small/out", O_WRONLY | O_CREAT, 0644));
  const std::string filler(4096 - 15, 'x');
  ASSERT_EQ(static_cast<ssize_t>(filler.size()), write(fd.Get(), filler.data(), filler.size()));
  EXPECT_FALSE(WriteLine(fd.Get(), "subvol(257) 4096 bytes\n"));
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_EQ(filler, ZorvTest::ReadFile("/tmp/small/out"));
  (void)umount("/tmp/small");
}

TEST(ChannelMessages, ArriveWholeHoweverTheyAreCut) {
  SizeResult sent;
  sent.generation = 12;
  for (uint64_t id = 256; id < 10256; ++id) sent.sizes.push_back({id, id * 4096, id * 16384});

  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  UniqueFd read(ends[0]);
  UniqueFd write(ends[1]);
  const pid_t child = fork();
  if (child == 0) {
    const bool ok = SendMessage(write.Get(), {Message::kNote, "first"}) &&
                    SendMessage(write.Get(), {Message::kFailure, ""}) &&
                    SendMessage(write.Get(), {Message::kResult, EncodeResult(sent)});
    _exit(ok ? 0 : 1);
  }
  write.Reset();
  MessageReader reader;
  std::vector<Message> got;
  while (reader.Receive(read.Get()))
    while (std::optional<Message> message = reader.Next()) got.push_back(*message);
  EXPECT_EQ(0, ZorvTest::WaitForExit(child));

  ASSERT_EQ(3u, got.size());
  EXPECT_EQ(Message::kNote, got[0].kind);
  EXPECT_EQ("first", got[0].payload);
  EXPECT_EQ(Message::kFailure, got[1].kind);
  SizeResult received;
  ASSERT_TRUE(DecodeResult(got[2].payload, &received));
  EXPECT_EQ(12u, received.generation);
  ASSERT_EQ(10000u, received.sizes.size());
  EXPECT_EQ(10255u, received.sizes.back().id);
  EXPECT_EQ(10255u * 16384, received.sizes.back().metadataBytes);
}

TEST(ChannelDecodeResult, RefusesWhatIsCut) {
  SizeResult result;
  result.sizes.push_back({257, 1, 2});
  const std::string payload = EncodeResult(result);
  for (size_t size = 0; size < payload.size(); ++size) {
    SizeResult out;
    const bool whole = size == sizeof(uint64_t);  // a generation and no sizes
    EXPECT_EQ(whole, DecodeResult(payload.substr(0, size), &out)) << size;
  }
}
