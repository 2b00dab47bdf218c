// Files that appear whole or not at all, reading them in parts, and what reaches a terminal.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>
#include <system_error>
#include <thread>

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "platform/libConsole.h"
#include "platform/libFileParts.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "tests/testSupport.h"

namespace vestrel {
namespace {

namespace fs = std::filesystem;

std::string RandomBytes(Random& random, std::size_t length) {
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random.Whole(0, 255));
    return bytes;
}

std::span<const unsigned char> BytesOf(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

std::size_t FilesIn(const fs::path& folder) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

TEST(NewFiles, TheOldFileStaysUntilTheNewOneIsWhole) {
    const TemporaryFolder folder;
    const fs::path file = folder / "night.fit";
    WriteFile(file, "old");
    {
        const NewFile abandoned(file);
        std::fputs("half of the n", abandoned.Stream());
        std::fflush(abandoned.Stream());
        EXPECT_EQ(ReadFile(file), "old");
    }
    EXPECT_EQ(ReadFile(file), "old");
    EXPECT_EQ(FilesIn(folder.Path), 1U) << "an abandoned file leaves nothing";

    NewFile first(file);
    NewFile second(file);
    std::fputs("first", first.Stream());
    std::fputs("second", second.Stream());
    second.Commit();
    EXPECT_EQ(ReadFile(file), "second");
    first.Commit();
    EXPECT_EQ(ReadFile(file), "first") << "two writers do not mix";
    EXPECT_EQ(FilesIn(folder.Path), 1U);
}

TEST(NewFiles, APictureThatCameWhileTheOlderOneWasWorkedOnStays) {
    const TemporaryFolder folder;
    const fs::path file = folder / "latest.fit";
    WriteFile(file, "first");
    const FileStamp first = StampOfFile(file);
    ReplaceSameFile(file, first, BytesOf("first, solved"));
    EXPECT_EQ(ReadFile(file), "first, solved");

    const FileStamp solved = StampOfFile(file);
    NewFile slow(file);
    std::fputs("solved again", slow.Stream());
    WriteFile(file, "the second picture");
    EXPECT_THROW(slow.CommitOver(solved), std::runtime_error);
    EXPECT_EQ(ReadFile(file), "the second picture");
    fs::remove(file);
    EXPECT_THROW(ReplaceSameFile(file, solved, BytesOf("x")), std::runtime_error);
    EXPECT_FALSE(fs::exists(file)) << "a removed picture does not come back";
    EXPECT_EQ(FilesIn(folder.Path), 0U);
}

TEST(NewFiles, WhatIsNoFileIsRefusedWithTheReason) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "folder.fit");
    WriteFile(folder / "plain", "x");
    struct Case {
        fs::path Path;
        std::errc Reason;
    };
    std::vector<Case> cases = {{folder / "folder.fit", std::errc::is_a_directory},
                               {folder / "nowhere/a.fit", std::errc::no_such_file_or_directory}};
#ifndef _WIN32
    cases.push_back({folder / "plain" / "a.fit", std::errc::not_a_directory});
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    cases.push_back({folder / "pipe", std::errc::not_supported});
    cases.push_back({"/dev/null", std::errc::not_supported});
#endif
    const std::size_t before = FilesIn(folder.Path);
    for (const auto& [path, reason] : cases) {
        try {
            const NewFile file(path);
            ADD_FAILURE() << path;
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code(), reason) << path << ": " << error.what();
            EXPECT_NE(std::string(error.what()).find(TextFromPath(path)), std::string::npos);
        }
        EXPECT_FALSE(ReplaceFile(path, "x"));
    }
    EXPECT_EQ(FilesIn(folder.Path), before);
}

TEST(NewFiles, AFileThatIsReadIsReplacedOrStaysAndSaysWhy) {
    const TemporaryFolder folder;
    const fs::path file = folder / "quads.tables";
    std::vector<FileHandle> readers;
    WriteFile(file, "old");
    readers.push_back(OpenFile(file, "rb"));
#ifdef _WIN32
    // The program of another maker, which lets nobody remove the file.
    readers.emplace_back(_wfopen(file.c_str(), L"rb"));
#endif
    std::string fault;
    try {
        NewFile next(file);
        std::fputs("new", next.Stream());
        next.Commit();
    } catch (const std::system_error& error) {
        fault = error.what();
    }
#ifdef _WIN32
    EXPECT_NE(fault.find("which another program may have open"), std::string::npos) << fault;
    EXPECT_EQ(ReadFile(file), "old");
#else
    EXPECT_EQ(fault, "");
    EXPECT_EQ(ReadFile(file), "new");
#endif
    for (const FileHandle& reader : readers) EXPECT_EQ(std::fgetc(reader.get()), 'o');
    readers.pop_back();
    // One who reads for a moment only is waited for.
    const std::jthread end([&readers] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        readers.clear();
    });
    EXPECT_TRUE(ReplaceFile(file, "newer"));
    EXPECT_EQ(ReadFile(file), "newer");
    EXPECT_EQ(FilesIn(folder.Path), 1U);
}

TEST(NewFiles, ALeftoverOfAProcessWithThisNumberGoesAndAFileInWorkStays) {
    const TemporaryFolder folder;
    const fs::path file = folder / "night.fit";
    const fs::path dead = folder / ("night.fit." + std::to_string(ProcessNumber()) + ".0.tmp");
    WriteFile(dead, "half of the n");
    NewFile slow(file);
    std::fputs("slow", slow.Stream());
    ASSERT_TRUE(ReplaceFile(file, "quick"));
    slow.Commit();
    EXPECT_EQ(ReadFile(file), "slow");
    EXPECT_EQ(FilesIn(folder.Path), 1U);
}

#ifndef _WIN32
TEST(NewFiles, PermissionsAndLinksStay) {
    const TemporaryFolder folder;
    const fs::path file = folder / "real.fit";
    WriteFile(file, "old");
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    fs::create_symlink("real.fit", folder / "link.fit");
    fs::create_symlink(folder / "link.fit", folder / "link of a link.fit");
    ASSERT_TRUE(ReplaceFile(folder / "link of a link.fit", "new"));
    EXPECT_TRUE(fs::is_symlink(folder / "link of a link.fit"));
    EXPECT_TRUE(fs::is_symlink(folder / "link.fit"));
    EXPECT_FALSE(fs::is_symlink(file));
    EXPECT_EQ(ReadFile(file), "new");
    EXPECT_EQ(fs::status(file).permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    EXPECT_EQ(FilesIn(folder.Path), 3U);
}

TEST(NewFiles, ALinkThatSomeoneElsePutIntoAFolderForAllIsNotFollowed) {
    const TemporaryFolder folder;
    const fs::path shared = folder / "shared";
    fs::create_directory(shared);
    ASSERT_EQ(chmod(shared.c_str(), 01777), 0);
    WriteFile(folder / "precious", "old");
    fs::create_directory(folder / "mine");
    fs::create_symlink("../precious", shared / "night.wcs");
    fs::create_symlink("../mine", shared / "out");
    EXPECT_TRUE(ReplaceFile(shared / "night.wcs", "my own link"));
    EXPECT_EQ(ReadFile(folder / "precious"), "my own link");
    if (geteuid() != 0) return;  // only the superuser can make the links of others
    constexpr uid_t other = 12345;
    for (const char* link : {"night.wcs", "out"}) {
        ASSERT_EQ(lchown((shared / link).c_str(), other, other), 0);
    }
    for (const fs::path& path : {shared / "night.wcs", shared / "out" / "night.wcs"}) {
        try {
            WriteWholeFile(path, "new");
            ADD_FAILURE() << path;
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code(), std::errc::permission_denied) << error.what();
        }
    }
    EXPECT_EQ(ReadFile(folder / "precious"), "my own link");
    EXPECT_TRUE(fs::is_empty(folder / "mine"));
    // Links of the folder's owner count, and all do where not everybody may write.
    ASSERT_EQ(chown(shared.c_str(), other, other), 0);
    EXPECT_TRUE(ReplaceFile(shared / "night.wcs", "of the owner"));
    ASSERT_EQ(chown(shared.c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(shared.c_str(), 0755), 0);
    EXPECT_TRUE(ReplaceFile(shared / "out" / "night.wcs", "in a folder of one"));
    EXPECT_EQ(FilesIn(shared), 2U);
}
#endif

TEST(NewFiles, ANameOfTheGreatestLengthCanBeReplaced) {
    const TemporaryFolder folder;
    const fs::path longest = folder / (std::string(251, 'n') + ".fit");
    ASSERT_TRUE(ReplaceFile(longest, "one"));
    ASSERT_TRUE(ReplaceFile(longest, "two"));
    EXPECT_EQ(ReadFile(longest), "two");
    EXPECT_EQ(FilesIn(folder.Path), 1U);
}

TEST(NewFiles, TheStartOfAFileIsReplacedAndItsRestStays) {
    const TemporaryFolder folder;
    const fs::path file = folder / "picture.fit";
    Random random(5);
    for (const std::size_t old : {0U, 1U, 2880U, 65536U, 65537U, 200000U}) {
        for (const std::size_t start : {0U, 1U, 2880U, 65536U, 131072U}) {
            const std::string before = RandomBytes(random, old);
            const std::string bytes = RandomBytes(random, start);
            WriteFile(file, before);
            ReplaceFileStart(file, BytesOf(bytes));
            ASSERT_EQ(ReadFile(file), bytes + before.substr(std::min(start, old)))
                << start << " of " << old;
        }
    }
    fs::remove(file);
    ReplaceFileStart(file, BytesOf("alone"));
    EXPECT_EQ(ReadFile(file), "alone");
    EXPECT_THROW(ReplaceFileStart(folder.Path, BytesOf("x")), std::system_error);
    EXPECT_EQ(FilesIn(folder.Path), 1U);
}

TEST(Reading, OfWholeFilesEndsAtTheirLimit) {
    const TemporaryFolder folder;
    std::vector<unsigned char> bytes = {1, 2, 3};
    WriteFile(folder / "a", "four");
    EXPECT_FALSE(ReadWholeFile(folder / "a", 3, bytes));
    ASSERT_TRUE(ReadWholeFile(folder / "a", 4, bytes));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "four");
    WriteFile(folder / "empty", "");
    ASSERT_TRUE(ReadWholeFile(folder / "empty", 0, bytes));
    EXPECT_TRUE(bytes.empty());
    EXPECT_FALSE(ReadWholeFile(folder.Path, 1000, bytes)) << "a folder";
    EXPECT_FALSE(ReadWholeFile(folder / "none", 1000, bytes));
#ifndef _WIN32
    EXPECT_EQ(OpenFile(folder.Path, "rb"), nullptr);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[1]);
    const FileHandle stream(fdopen(ends[0], "rb"));
    EXPECT_EQ(FileLength(stream.get()), -1);
    EXPECT_FALSE(SeekFile(stream.get(), 1));
#endif
}

#ifndef _WIN32
TEST(Reading, APipeIsNoFileAndIsNotWaitedFor) {
    const TemporaryFolder folder;
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    fs::create_symlink("pipe", folder / "link");
    std::vector<unsigned char> bytes;
    for (const fs::path& path : {folder / "pipe", folder / "link", fs::path("/dev/zero")}) {
        EXPECT_FALSE(OpenFile(path, "rb")) << path;
        EXPECT_FALSE(ReadWholeFile(path, 1000, bytes)) << path;
    }
    const FileHandle writer = OpenFile(folder / "pipe", "r+");
    std::fputs("x", writer.get());
    std::fflush(writer.get());
    EXPECT_EQ(std::fgetc(OpenInput(folder / "pipe").get()), 'x');
}
#endif

TEST(Reading, OfPartsBySeveralThreadsLeavesTheStreamWhereItIs) {
    const TemporaryFolder folder;
    Random random(6);
    const std::string content = RandomBytes(random, 300001);
    WriteFile(folder / "a", content);
    const FileHandle file = OpenFile(folder / "a", "rb");
    ASSERT_EQ(FileLength(file.get()), static_cast<std::int64_t>(content.size()));
    ASSERT_TRUE(SeekFile(file.get(), 77));
    std::atomic<int> wrong = 0;
    std::vector<std::jthread> threads;
    for (unsigned seed = 0; seed < 4; ++seed) {
        threads.emplace_back([&, seed] {
            Random places(seed);
            std::string part;
            for (int i = 0; i < 300; ++i) {
                const auto from = static_cast<std::size_t>(places.Whole(0, 310000));
                part.resize(static_cast<std::size_t>(places.Whole(0, 40000)));
                const std::size_t read = ReadAt(file.get(), from, part.data(), part.size());
                const std::string expected =
                    from < content.size() ? content.substr(from, part.size()) : "";
                wrong += read != expected.size() || part.compare(0, read, expected) != 0;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(FilePosition(file.get()), 77);
    EXPECT_EQ(std::fgetc(file.get()), static_cast<unsigned char>(content[77]));
}

/// The code points of a text; bytes that belong to none count as themselves plus a million.
std::vector<std::uint32_t> CodePoints(const std::string& text) {
    std::vector<std::uint32_t> points;
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
        const std::size_t length = byte(i) < 0x80 ? 1 : byte(i) < 0xC2 ? 0 : byte(i) < 0xE0 ? 2 : 0;
        const bool whole = length == 1 || (length == 2 && i + 1 < text.size() &&
                                           byte(i + 1) >= 0x80 && byte(i + 1) < 0xC0);
        if (!whole) {
            points.push_back(1000000 + byte(i++));
        } else if (length == 1) {
            points.push_back(byte(i++));
        } else {
            points.push_back((byte(i) & 31U) << 6 | (byte(i + 1) & 63U));
            i += 2;
        }
    }
    return points;
}

bool IsControl(std::uint32_t point) {
    return point < 32 || (point >= 127 && point < 160);
}

TEST(TerminalTexts, ControlsGoAndEverythingElseStays) {
    Random random(8);
    const std::string pieces[] = {"\x1B[2J", "a", "\xC2\x85", "\xC3\xBC", "\n", "\t",
                                  "\x7F",    " ", "\xC2",     "\x9B",     "\0"};
    for (int trial = 0; trial < 4000; ++trial) {
        std::string text;
        for (int i = random.Whole(0, 10); i > 0; --i) {
            text += pieces[static_cast<std::size_t>(random.Whole(0, 10))];
        }
        const std::string clean = WithoutControls(text, "\n");
        ASSERT_EQ(clean.size(), text.size());
        for (const std::uint32_t point : CodePoints(clean)) {
            ASSERT_TRUE(point == '\n' || !IsControl(point)) << text;
        }
        for (std::size_t i = 0; i < text.size(); ++i) {
            const auto byte = static_cast<unsigned char>(text[i]);
            if (byte >= 32 && byte < 127) {
                ASSERT_EQ(clean[i], text[i]);
            }
        }
        ASSERT_EQ(WithoutControls(clean, "\n"), clean);
        const std::string once = WithoutControls(text);
        ASSERT_EQ(std::count(once.begin(), once.end(), '\n'), 0);
    }
    EXPECT_EQ(WithoutControls("M 42 \xE2\x80\x93 \xC3\xBC"), "M 42 \xE2\x80\x93 \xC3\xBC");
}

TEST(TerminalTexts, EscapedJsonIsTheSameJson) {
    Random random(9);
    for (int trial = 0; trial < 2000; ++trial) {
        std::string text;
        for (int i = random.Whole(0, 20); i > 0; --i) {
            const int point = random.Whole(0, 255);
            if (point < 128) {
                text += static_cast<char>(point);
            } else {
                text += static_cast<char>(0xC0 | point >> 6);
                text += static_cast<char>(0x80 | (point & 63));
            }
        }
        const std::string escaped = WithEscapedControls(nlohmann::json(text).dump());
        ASSERT_EQ(nlohmann::json::parse(escaped).get<std::string>(), text);
        for (const std::uint32_t point : CodePoints(escaped)) ASSERT_FALSE(IsControl(point));
    }
}

TEST(Programs, AnExceptionIsReportedAndGivesTheExitCodeAskedFor) {
    const char* const arguments[] = {"tool", "m\xC3\xBC.fit"};
    testing::internal::CaptureStderr();
    const int code = RunProgram(
        "tool", 2, arguments,
        [](int count, const char* const* values) -> int {
            throw std::runtime_error(std::string("no \x1B file ") + values[count - 1]);
        },
        [](const std::exception& failure) { return static_cast<int>(strlen(failure.what())); });
#ifndef _WIN32  // there the arguments are those of the process
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "tool: no ? file m\xC3\xBC.fit\n");
    EXPECT_EQ(code, 17);
#else
    EXPECT_GT(code, 10);
#endif
    EXPECT_EQ(RunProgram(
                  "tool", 2, arguments, [](int, const char* const*) { return 9; },
                  [](const std::exception&) { return 1; }),
              9);
}

#ifndef _WIN32
TEST(Programs, AFileIsNeverTakenForAStandardStreamThatWasClosed) {
    static const TemporaryFolder folder;
    EXPECT_EXIT(
        {
            for (const int stream : {0, 1, 2}) close(stream);
            std::_Exit(RunProgram(
                "tool", 0, nullptr,
                [](int, const char* const*) {
                    std::fputs("to nobody", stderr);
                    std::fputs("to nobody", stdout);
                    const bool told = std::fflush(stdout) != 0;
                    const FileHandle file = OpenFile(folder / "journal", "wb");
                    return told && fileno(file.get()) > 2 ? 7 : 1;
                },
                [](const std::exception&) { return 2; }));
        },
        testing::ExitedWithCode(7), "");
}
#endif

}  // namespace
}  // namespace vestrel
