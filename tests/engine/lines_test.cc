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
  EXPECT_EQ("problem: a?b\n", FindingLine("problem", "a\nb"));
  EXPECT_EQ(size_t{PIPE_BUF}, FindingLine("note", std::string(2 * PIPE_BUF, 'x')).size());
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

TEST(LinesDocument, IsTakenBackFromAFileThatHasNoRoom) {
  ASSERT_EQ(0, mkdir("/tmp/cramped", 0755));
  ASSERT_EQ(0, mount("tmpfs", "/tmp/cramped", "tmpfs", 0, "size=8192"));
  for (const int append : {0, O_APPEND}) {
    SCOPED_TRACE(append);
    ZorvTest::WriteFile("/tmp/cramped/out", "before");
    const UniqueFd fd(open("/tmp/cramped/out", O_WRONLY | append));
    if (append == 0) (void)lseek(fd.Get(), 6, SEEK_SET);
    DocumentWriter out(fd.Get());
    EXPECT_TRUE(out.Write(std::string(5000, 'x')));
    EXPECT_FALSE(out.Write(std::string(5000, 'y')));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ("before", ZorvTest::ReadFile("/tmp/cramped/out"));
  }
  (void)umount("/tmp/cramped");
}

TEST(LinesDocument, LeavesWhatOthersHaveAdded) {
  ASSERT_EQ(0, mkdir("/tmp/shared", 0755));
  ASSERT_EQ(0, mount("tmpfs", "/tmp/shared", "tmpfs", 0, "size=8192"));
  const UniqueFd fd(open("/tmp/shared/out", O_WRONLY | O_CREAT | O_APPEND, 0644));
  const UniqueFd other(open("/tmp/shared/out", O_WRONLY | O_APPEND));
  DocumentWriter out(fd.Get());
  EXPECT_TRUE(out.Write(std::string(5000, 'x')));
  const std::string rest(8192 - 5000, 'o');
  ASSERT_EQ(static_cast<ssize_t>(rest.size()), write(other.Get(), rest.data(), rest.size()));
  EXPECT_FALSE(out.Write("y"));
  EXPECT_EQ(std::string(5000, 'x') + rest, ZorvTest::ReadFile("/tmp/shared/out"));
  (void)umount("/tmp/shared");
}

TEST(ChannelSendResult, SendsAnySize) {
  SizeResult sent;
  sent.table.redundancies = {{}};
  for (uint32_t i = 0; i < 2000; ++i) {
    sent.table.ids.push_back(256 + i);
    sent.table.rows.push_back({{i}, true, {{i, 0}}});
  }
  // Every other subvolume: as many runs as members.
  for (uint32_t row = 0; row < 200; ++row) {
    sent.table.rows.push_back({{}, true, {{row, 1}}});
    for (uint32_t i = row % 2; i < 2000; i += 2) sent.table.rows.back().members.push_back(i);
  }
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  UniqueFd read(ends[0]);
  UniqueFd write(ends[1]);
  const pid_t child = fork();
  if (child == 0) _exit(SendResult(write.Get(), sent) ? 0 : 1);
  write.Reset();
  MessageReader reader;
  std::string payload;
  int parts = 0;
  while (reader.Receive(read.Get()))
    while (std::optional<Message> message = reader.Next()) {
      EXPECT_LE(message->payload.size(), 1u << 20);
      EXPECT_EQ(payload.size() < 1u << 20 ? Message::kResultPart : Message::kResult, message->kind);
      payload += message->payload;
      ++parts;
    }
  EXPECT_EQ(0, ZorvTest::WaitForExit(child));
  EXPECT_EQ(2, parts);
  SizeResult received;
  ASSERT_TRUE(DecodeResult(payload, &received));
  ASSERT_EQ(sent.table.rows.size(), received.table.rows.size());
  for (size_t i = 0; i < sent.table.rows.size(); ++i)
    EXPECT_EQ(sent.table.rows[i].members, received.table.rows[i].members);
}

// What a broken worker might send must not make the front take all memory.
TEST(ChannelDecodeResult, RefusesMembersThatAreNotThere) {
  SizeResult result;
  result.table.ids = {257, 258};
  result.table.redundancies = {{}};
  result.table.rows = {{{0, 1}, true, {{1, 2}}}};
  EXPECT_TRUE(DecodeResult(EncodeResult(result), &result));
  for (const std::vector<uint32_t>& members :
       {std::vector<uint32_t>{2}, {0, 1, 2}, {UINT32_MAX}, {1, UINT32_MAX}}) {
    result.table.rows[0].members = members;
    SizeResult out;
    EXPECT_FALSE(DecodeResult(EncodeResult(result), &out));
  }
}

TEST(ChannelMessages, ArriveWholeHoweverTheyAreCut) {
  SizeResult sent;
  sent.generation = 12;
  sent.table.redundancies.push_back({1 << 7, 4, 3});
  sent.table.countsSeveral = false;
  for (uint32_t i = 0; i < 10000; ++i) {
    sent.table.ids.push_back(256 + i);
    sent.table.rows.push_back({{i}, i % 2 == 0, {{i * 4096u, i * 16384u}}});
  }

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
  EXPECT_EQ(sent.table.ids, received.table.ids);
  EXPECT_EQ(sent.table.redundancies, received.table.redundancies);
  EXPECT_FALSE(received.table.countsSeveral);
  ASSERT_EQ(10000u, received.table.rows.size());
  EXPECT_TRUE(received.table.rows[9998].complete);
  EXPECT_FALSE(received.table.rows[9999].complete);
  EXPECT_EQ(std::vector<uint32_t>{9999}, received.table.rows[9999].members);
  EXPECT_EQ(9999u * 4096, received.table.Exclusive(9999).data);
  EXPECT_EQ(9999u * 16384, received.table.Exclusive(9999).metadata);
}

TEST(ChannelDecodeResult, RefusesWhatIsCut) {
  SizeResult result;
  result.table.ids = {257};
  result.table.redundancies = {{}};
  result.table.rows = {{{0}, true, {{1, 2}}}};
  const std::string payload = EncodeResult(result);
  EXPECT_TRUE(DecodeResult(payload, &result));
  EXPECT_FALSE(DecodeResult(payload + "x", &result));
  for (size_t size = 0; size < payload.size(); ++size) {
    SizeResult out;
    EXPECT_FALSE(DecodeResult(payload.substr(0, size), &out)) << size;
    EXPECT_TRUE(out.table.ids.empty());
  }
}
