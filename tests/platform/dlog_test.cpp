#include <dlog.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// What a process of its own wrote to standard error: one entry a write.
struct Heard {
    std::vector<std::string> writes;
    std::string pid;
    int exitCode = -1;
};

// Runs `talk` in a child, where DLOG_LEVEL has not been read yet. Standard error is a socket that keeps the limits
// of the writes. What `talk` returns becomes the exit code.
Heard Listen(const char* level, const std::function<int()>& talk) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    Heard heard;
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        if (level != nullptr) {
            setenv("DLOG_LEVEL", level, 1);
        } else {
            unsetenv("DLOG_LEVEL");
        }
        _exit(talk());
    }
    close(ends[1]);
    std::string buffer(1U << 20U, '\0');
    ssize_t size = 0;
    while ((size = read(ends[0], buffer.data(), buffer.size())) > 0) {
        heard.writes.emplace_back(buffer, 0, static_cast<std::size_t>(size));
    }
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    heard.pid = std::to_string(child);
    heard.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return heard;
}

std::string Line(const Heard& heard, const std::string& head, const std::string& text) {
    return head + "(" + heard.pid + "): " + text + "\n";
}

TEST(DlogPrint, Line_IsLetterTagProcessAndText) {
    const Heard heard = Listen(nullptr, [] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "vantry", "%s: %s(%d) > %.*s", "File.cpp", "Open", 12, 3,
                     "abcdef");
        return 0;
    });
    EXPECT_EQ(heard.exitCode, 0);
    EXPECT_THAT(heard.writes, ElementsAre(Line(heard, "I/vantry", "File.cpp: Open(12) > abc")));
}

TEST(DlogPrint, EveryBuffer_GoesToStandardError) {
    const Heard heard = Listen(nullptr, [] {
        for (const log_id_t id : {LOG_ID_MAIN, LOG_ID_RADIO, LOG_ID_SYSTEM, LOG_ID_APPS}) {
            __dlog_print(id, DLOG_INFO, "t", "%d", static_cast<int>(id));
        }
        return 0;
    });
    EXPECT_THAT(heard.writes, ElementsAre(Line(heard, "I/t", "0"), Line(heard, "I/t", "1"),
                                          Line(heard, "I/t", "2"), Line(heard, "I/t", "3")));
}

TEST(DlogPrint, Priorities_HaveTheirNumbersAndLetters) {
    const Heard heard = Listen("verbose", [] {
        for (int priority = 2; priority <= 7; ++priority) {
            __dlog_print(LOG_ID_MAIN, priority, "t", "x");
        }
        return 0;
    });
    EXPECT_THAT(heard.writes,
                ElementsAre(Line(heard, "V/t", "x"), Line(heard, "D/t", "x"), Line(heard, "I/t", "x"),
                            Line(heard, "W/t", "x"), Line(heard, "E/t", "x"), Line(heard, "F/t", "x")));
}

TEST(DlogPrint, PrioritiesOutsideTheList_AreNoCrash) {
    const Heard heard = Listen("0", [] {
        for (const int priority : {0, 1, 9, 1000, -1, -2147483647 - 1, 2147483647}) {
            __dlog_print(LOG_ID_MAIN, priority, "t", "x");
        }
        return 0;
    });
    EXPECT_EQ(heard.exitCode, 0);
    for (const std::string& line : heard.writes) {
        EXPECT_EQ(line, Line(heard, "?/t", "x"));
    }
}

struct Level {
    const char* setting;
    // The letters that pass, of VDIWEF.
    const char* passing;
};
void PrintTo(const Level& level, std::ostream* out) { *out << level.passing; }

class DlogLevel : public ::testing::TestWithParam<Level> {};

INSTANTIATE_TEST_SUITE_P(
    DlogPrint, DlogLevel,
    ::testing::Values(
        Level{nullptr, "IWEF"}, Level{"", "IWEF"},
        // Letters.
        Level{"v", "VDIWEF"}, Level{"d", "DIWEF"}, Level{"i", "IWEF"}, Level{"w", "WEF"}, Level{"e", "EF"},
        Level{"f", "F"}, Level{"s", ""}, Level{"V", "VDIWEF"}, Level{"D", "DIWEF"}, Level{"I", "IWEF"},
        Level{"W", "WEF"}, Level{"E", "EF"}, Level{"F", "F"}, Level{"S", ""},
        // Names.
        Level{"verbose", "VDIWEF"}, Level{"debug", "DIWEF"}, Level{"info", "IWEF"}, Level{"warn", "WEF"},
        Level{"error", "EF"}, Level{"fatal", "F"}, Level{"silent", ""}, Level{"VERBOSE", "VDIWEF"},
        Level{"Debug", "DIWEF"}, Level{"WARN", "WEF"}, Level{"Error", "EF"}, Level{"SILENT", ""},
        // Numbers.
        Level{"0", "VDIWEF"}, Level{"1", "VDIWEF"}, Level{"2", "VDIWEF"}, Level{"3", "DIWEF"},
        Level{"4", "IWEF"}, Level{"5", "WEF"}, Level{"6", "EF"}, Level{"7", "F"}, Level{"8", ""}),
    [](const ::testing::TestParamInfo<Level>& level) {
        const std::string setting = level.param.setting != nullptr ? level.param.setting : "unset";
        return setting.empty() ? "empty" : setting;
    });

TEST_P(DlogLevel, LinesBelowIt_AreDropped) {
    const Heard heard = Listen(GetParam().setting, [] {
        int dropped = 0;
        for (const int priority : {2, 3, 4, 5, 6, 7}) {
            dropped += __dlog_print(LOG_ID_MAIN, priority, "t", "x") == 0 ? 1 : 0;
        }
        return dropped;
    });
    std::string letters;
    for (const std::string& line : heard.writes) {
        letters += line.substr(0, 1);
    }
    EXPECT_EQ(letters, GetParam().passing);
    EXPECT_EQ(heard.exitCode, static_cast<int>(6 - letters.size()));
}

TEST(DlogPrint, Silent_WritesNothingAtAll) {
    const Heard heard = Listen("silent", [] {
        int dropped = 0;
        for (const int priority : {0, 7, 8, 9, 1000}) {
            dropped += __dlog_print(LOG_ID_MAIN, priority, "t", "x") == 0 ? 1 : 0;
        }
        return dropped;
    });
    EXPECT_THAT(heard.writes, IsEmpty());
    EXPECT_EQ(heard.exitCode, 5);
}

TEST(DlogPrint, Level_IsReadAtTheFirstCall) {
    const Heard heard = Listen("error", [] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "one");
        setenv("DLOG_LEVEL", "verbose", 1);
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "two");
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "t", "three");
        return 0;
    });
    EXPECT_THAT(heard.writes, ElementsAre(Line(heard, "E/t", "three")));
}

TEST(DlogPrint, NullTag_IsAccepted) {
    const Heard heard = Listen(nullptr, [] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, nullptr, "the text");
        return 0;
    });
    EXPECT_EQ(heard.exitCode, 0);
    EXPECT_THAT(heard.writes, ElementsAre(Line(heard, "I/(null)", "the text")));
}

TEST(DlogPrint, TagWithALineBreak_MakesOneLine) {
    const Heard heard = Listen(nullptr, [] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "a\nb", "text");
        return 0;
    });
    EXPECT_THAT(heard.writes, ElementsAre(Line(heard, "I/ab", "text")));
}

TEST(DlogPrint, LongTag_LeavesTheTextWhole) {
    const Heard heard = Listen(nullptr, [] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, std::string(5000, 'g').c_str(), "text");
        return 0;
    });
    EXPECT_EQ(heard.exitCode, 0);
    ASSERT_THAT(heard.writes, SizeIs(1));
    EXPECT_THAT(heard.writes[0], ::testing::StartsWith("I/ggg"));
    EXPECT_THAT(heard.writes[0], ::testing::EndsWith("(" + heard.pid + "): text\n"));
}

TEST(DlogPrint, EmptyText_IsALine) {
    const Heard heard = Listen(nullptr, [] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "%s", "");
        return 0;
    });
    EXPECT_THAT(heard.writes, ElementsAre(Line(heard, "I/t", "")));
}

TEST(DlogPrint, ControlCharacters_AreWrittenAsEscapes) {
    const Heard heard = Listen(nullptr, [] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "%s",
                     "a\nb\tc\rd\x01\x0b\x1f\x1b[0m\x7f"
                     "e\n");
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "zero[%c]", 0);
        return 0;
    });
    EXPECT_THAT(heard.writes, ElementsAre(Line(heard, "I/t", R"(a\nb\tc\rd\x01\x0b\x1f\x1b[0m\x7fe\n)"),
                                          Line(heard, "I/t", R"(zero[\x00])")));
}

TEST(DlogPrint, OtherBytes_PassAsTheyAre) {
    const Heard heard = Listen(nullptr, [] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "%s", "\xc3\xa4 \xe4\xb8\xad ~\\n 100%");
        return 0;
    });
    EXPECT_THAT(heard.writes, ElementsAre(Line(heard, "I/t", "\xc3\xa4 \xe4\xb8\xad ~\\n 100%")));
}

TEST(DlogPrint, LongLines_AreWrittenWholeInOneWrite) {
    const std::vector<std::size_t> lengths = {100, 127, 128, 1023, 1024, 4095, 4096, 4097, 65536, 120000};
    const Heard heard = Listen(nullptr, [&lengths] {
        for (const std::size_t length : lengths) {
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "%s", std::string(length, 'x').c_str());
        }
        return 0;
    });
    ASSERT_EQ(heard.writes.size(), lengths.size());
    for (std::size_t i = 0; i < lengths.size(); ++i) {
        EXPECT_EQ(heard.writes[i], Line(heard, "I/t", std::string(lengths[i], 'x'))) << lengths[i];
    }
}

TEST(DlogPrint, LongLineOfControlCharacters_IsWrittenWholeInOneWrite) {
    const Heard heard = Listen(nullptr, [] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "%s", std::string(20000, '\x02').c_str());
        return 0;
    });
    std::string escapes;
    for (int i = 0; i < 20000; ++i) {
        escapes += "\\x02";
    }
    EXPECT_THAT(heard.writes, ElementsAre(Line(heard, "I/t", escapes)));
}

TEST(DlogPrint, ManyThreads_DoNotMixTheirLines) {
    constexpr int kThreads = 8;
    constexpr int kLines = 250;
    // Longer than a pipe's page for some.
    const auto text = [](int thread, int line) {
        return std::to_string(thread) + ":" + std::to_string(line) + ":" +
               std::string(static_cast<std::size_t>(line) * 37, static_cast<char>('a' + thread));
    };
    const Heard heard = Listen(nullptr, [&text] {
        std::vector<std::thread> threads;
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&text, thread] {
                for (int line = 0; line < kLines; ++line) {
                    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "%s", text(thread, line).c_str());
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        return 0;
    });
    EXPECT_EQ(heard.exitCode, 0);
    std::vector<std::string> expected;
    for (int thread = 0; thread < kThreads; ++thread) {
        for (int line = 0; line < kLines; ++line) {
            expected.push_back(Line(heard, "I/t", text(thread, line)));
        }
    }
    EXPECT_THAT(heard.writes, ::testing::UnorderedElementsAreArray(expected));
}

TEST(DlogPrint, Result_IsTheBytesWritten) {
    const Heard heard = Listen(nullptr, [] { return __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "a\nb"); });
    ASSERT_THAT(heard.writes, SizeIs(1));
    EXPECT_EQ(heard.exitCode, static_cast<int>(heard.writes[0].size()));
}

TEST(DlogPrint, LineThatCannotBeWritten_IsToldByANegativeResult) {
    const Heard heard = Listen(nullptr, [] {
        close(STDERR_FILENO);
        return __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "x") < 0 ? 7 : 0;
    });
    EXPECT_EQ(heard.exitCode, 7);
}

TEST(DlogPrint, LineThatCannotBeMade_IsToldByANegativeResult) {
    const Heard heard = Listen(nullptr, [] {
        const wchar_t noCharacter[] = {static_cast<wchar_t>(0x7fffffff), 0};
        return __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "%ls", noCharacter) < 0 ? 7 : 0;
    });
    EXPECT_EQ(heard.exitCode, 7);
    EXPECT_THAT(heard.writes, IsEmpty());
}

TEST(DlogPrint, Errno_StaysAsItWas) {
    const Heard heard = Listen(nullptr, [] {
        errno = ENOENT;
        __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "t", "dropped");
        const bool kept = errno == ENOENT;
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "written");
        const bool keptAgain = errno == ENOENT;
        close(STDERR_FILENO);
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "t", "failed");
        return kept && keptAgain && errno == ENOENT ? 7 : 0;
    });
    EXPECT_EQ(heard.exitCode, 7);
}

}  // namespace
