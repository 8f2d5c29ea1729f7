// The console window: message formatting, the inert class of a program that
// has its streams, and a real console on a terminal (a pseudo-terminal).
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <unistd.h>
#endif

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>

#include "ConsoleWindow.h"
#include "sysman.h"
#include "test_support.h"

namespace {

std::string format(const char* text, ...) {
  va_list args;
  va_start(args, text);
  std::string result = CSL::ConsoleWindow::FormatText(text, args);
  va_end(args);
  return result;
}

TEST(ConsoleFormat, StrayPercentSignsPrintAsThemselves) {
  using CSL::ConsoleWindow;
  EXPECT_EQ(ConsoleWindow::EscapeFormat("100% done"), "100%% done");
  EXPECT_EQ(format("100% done"), "100% done");
  EXPECT_EQ(format("50%!"), "50%!");
  EXPECT_EQ(format("100%x", 255u), "100ff") << "x converts, so the % is kept and takes an argument";
  EXPECT_EQ(format("%5d|%-3s|%.2f|%+d|%%", 42, "ab", 1.5, 7), "   42|ab |1.50|+7|%");
  EXPECT_EQ(format("%s is 80% of %d%%", "x", 10), "x is 80% of 10%");
  EXPECT_EQ(ConsoleWindow::EscapeFormat("end%"), "end%") << "a final % is left alone";
  EXPECT_EQ(ConsoleWindow::EscapeFormat("%ld"), "%%ld") << "only the listed characters may follow";
  EXPECT_EQ(ConsoleWindow::EscapeFormat("%%d"), "%%d");
  EXPECT_EQ(format(nullptr), "");
}

TEST(ConsoleFormat, LongTextsGrowTheBufferUpTo16384AndAreCutThere) {
  const std::string fits(4095, 'a'), twice(8000, 'b'), four(16000, 'c'), over(20000, 'd');
  EXPECT_EQ(format("%s", fits.c_str()), fits);
  EXPECT_EQ(format("%s", twice.c_str()), twice);
  EXPECT_EQ(format("%s", four.c_str()), four);
  EXPECT_EQ(format("%s", over.c_str()), std::string(16383, 'd'));
  EXPECT_EQ(format("%s!", std::string(16383, 'e').c_str()), std::string(16383, 'e'));
}

// Runs body in a child whose standard output is a file; answers the child's
// exit status and what reached the file.
int with_stdout_in_file(const std::function<int()>& body, std::string& output) {
  kvtest::TempDir dir;
  const std::string path = dir.file("out.txt");
  const int status = kvtest::run_in_child([&] {
    if (std::freopen(path.c_str(), "w", stdout) == nullptr) return 90;
    return body();
  });
  output = kvtest::read_file(path);
  return status;
}

TEST(ConsoleInert, AProgramWithItsStreamsHasItsConsoleAlready) {
  EXPECT_FALSE(CSL::ConsoleWindow::IsInitialized());
  std::string output;
  const int status = with_stdout_in_file(
      [] {
        CSL::ConsoleWindow::InitializeConsole();
        if (CSL::ConsoleWindow::IsInitialized()) return 1;
        CSL::ConsoleWindow::DisplayMessage("%s", "not shown");
        CSL::ConsoleWindow::DisplayMessage(std::string("nor this"));
        CSL::ConsoleWindow::SetTitle("no title");
        CSL::ConsoleWindow::Show();
        CSL::ConsoleWindow::Hide();
        CSL::ConsoleWindow::DisableClose();
        SysManager::Initialize();
#if !defined(_WIN32)
        // Start-up leaves the signals of a program with its own console alone.
        struct sigaction action {};
        sigaction(SIGINT, nullptr, &action);
        if (action.sa_handler != SIG_DFL) return 2;
#endif
        return CSL::ConsoleWindow::IsInitialized() ? 3 : 0;
      },
      output);
  EXPECT_EQ(kvtest::child_result(status), 0);
  EXPECT_EQ(output, "");
}

TEST(ConsoleInert, NoTerminalNoConsole) {
  KVTEST_POSIX_ONLY("Windows has no sessions and no controlling terminals");
#if !defined(_WIN32)
  const int status = kvtest::run_in_child([] {
    if (setsid() < 0) return 1;  // a new session has no controlling terminal
    const int null = open("/dev/null", O_WRONLY);
    if (null < 0 || dup2(null, STDOUT_FILENO) < 0) return 2;
    CSL::ConsoleWindow::InitializeConsole();
    return CSL::ConsoleWindow::IsInitialized() ? 3 : 0;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
#endif
}

#if !defined(_WIN32)
// Runs body in a child on a new pseudo-terminal with standard output and
// error on the null device: a program without a console of its own. Answers the child's
// exit status and everything written to the terminal.
int on_terminal(const std::function<int()>& body, std::string& terminal) {
  std::fflush(nullptr);
  int master = -1;
  const pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
  if (child < 0) return -1;
  if (child == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    int code = 99;
    try {
      code = body();
    } catch (...) {
      code = 98;
    }
    std::fflush(nullptr);
    _exit(code);
  }
  char buffer[4096];
  for (;;) {
    pollfd p{master, POLLIN, 0};
    if (poll(&p, 1, 10000) <= 0) break;
    const ssize_t n = read(master, buffer, sizeof buffer);
    if (n <= 0) break;  // EIO once the child has gone
    terminal.append(buffer, static_cast<size_t>(n));
  }
  close(master);
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}
#endif

// A console window of its own needs a desktop: the Windows runs are headless.
TEST(ConsoleTerminal, AProgramWithoutStreamsGetsTheTerminal) {
  KVTEST_POSIX_ONLY("a new console window needs a desktop; these runs are headless");
#if !defined(_WIN32)
  std::string terminal;
  const int status = on_terminal(
      [] {
        CSL::ConsoleWindow::InitializeConsole();
        if (!CSL::ConsoleWindow::IsInitialized()) return 1;
        CSL::ConsoleWindow::InitializeConsole();  // a second call changes nothing
        if (!CSL::ConsoleWindow::IsInitialized()) return 2;
        CSL::ConsoleWindow::SetTitle("Probe\a title");
        CSL::ConsoleWindow::DisplayMessage("100% done, %d left\n", 7);
        CSL::ConsoleWindow::DisplayMessage(std::string("from a string %s\n"), "argument");
        CSL::ConsoleWindow::Show();
        CSL::ConsoleWindow::Hide();
        CSL::ConsoleWindow::DisableClose();
        std::fputs("stderr too\n", stderr);
        return 0;
      },
      terminal);
  EXPECT_EQ(kvtest::child_result(status), 0);
  EXPECT_NE(terminal.find("\033]0;Probe title\007"), std::string::npos) << terminal;
  EXPECT_NE(terminal.find("100% done, 7 left\r\n"), std::string::npos) << terminal;
  EXPECT_NE(terminal.find("from a string argument\r\n"), std::string::npos) << terminal;
  EXPECT_NE(terminal.find("stderr too\r\n"), std::string::npos) << terminal;
#endif
}

TEST(ConsoleTerminal, StartUpTitlesTheConsoleAndSwallowsItsControlEvents) {
  KVTEST_POSIX_ONLY("a new console window needs a desktop; these runs are headless");
#if !defined(_WIN32)
  std::string terminal;
  const int status = on_terminal(
      [] {
        SysManager::Initialize();
        if (!CSL::ConsoleWindow::IsInitialized()) return 1;
        raise(SIGINT);
        raise(SIGQUIT);
        raise(SIGHUP);
        CSL::ConsoleWindow::DisplayMessage("still running\n");
        signal(SIGTERM, SIG_DFL);
        raise(SIGTERM);  // other signals keep their meaning
        return 0;
      },
      terminal);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_NE(terminal.find("\033]0;SysManager Debug\007"), std::string::npos) << terminal;
  EXPECT_NE(terminal.find("still running"), std::string::npos) << terminal;
#endif
}

}  // namespace
