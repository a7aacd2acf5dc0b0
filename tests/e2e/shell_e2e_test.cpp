// The interactive shell of the built client, driven as a person drives it: keys typed on a
// pseudo-terminal, against the reference server on a thread of the test. Every wait is bounded
// by a limit on the expected output. Runs that are not at a terminal keep the classic contract:
// the --interactive cases here, and the whole client suite, check that.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/e2e.h"
#include "support/pty_process.h"
#include "tools/standalone_client/line_reader.h"

namespace {

using namespace kest_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

// A reference server on a thread of the test, and the client run against it.
class ShellE2E : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(port_ = server_.start(), 0); }
  void TearDown() override { pty_.reset(); }

  std::string where() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string prompt() const { return where() + "> "; }
  std::string continuation(const char* mark = "-> ") const {
    return std::string(where().size() - 1, ' ') + mark;
  }
  Args client_args(const Args& extra) const {
    Args args = at_port(port_, extra);
    args.insert(args.begin(), KEST_CLIENT_BIN);
    return args;
  }
  PtyProcess::Env env(const PtyProcess::Env& more = {}) const {
    PtyProcess::Env e = {{"HOME", home_.path().string()},
                         {"USERPROFILE", home_.path().string()},
                         {"ZNLOG", {}},
                         {"KEST_HISTORY", {}},
                         {"KEST_PAGER", {}},
                         {"TERM", "xterm"}};
    e.insert(e.end(), more.begin(), more.end());
    return e;
  }

  // Starts the client at a terminal and waits for its first prompt.
  void start_shell(const Args& extra = {}, const PtyProcess::Env& more_env = {}) {
    pty_ = std::make_unique<PtyProcess>();
    ASSERT_TRUE(pty_->start(client_args(extra), env(more_env))) << pty_->error();
    ASSERT_TRUE(pty_->expect(prompt())) << pty_->output();
  }
  // Types a line and waits for the next prompt: the output in between, the echo included.
  std::string type(const std::string& keys, const std::string& next_prompt = "") {
    pty_->send(keys);
    pty_->send(keys::kEnter);
    EXPECT_TRUE(pty_->expect(next_prompt.empty() ? prompt() : next_prompt)) << pty_->output();
    return pty_->last();
  }

  ProcessResult run_piped(const Args& extra, const std::string& input) {
    return run_client(home_, at_port(port_, extra), input);
  }

  TempDir home_{"kest_shell"};
  RefServer server_;
  uint16_t port_ = 0;
  std::unique_ptr<PtyProcess> pty_;
};

// The cases typed at a terminal.
class ShellAtTerminal : public ShellE2E {
 protected:
  void SetUp() override {
    if (!PtyProcess::supported()) GTEST_SKIP() << "no pseudo-terminals here";
    ShellE2E::SetUp();
  }
};

TEST_F(ShellAtTerminal, ABannerAndAPromptNameTheServer) {
  start_shell();
  EXPECT_THAT(pty_->last(), HasSubstr("kest_client, connected to " + where() + "."));
  EXPECT_THAT(pty_->last(), HasSubstr("Type \\? for the commands, \\q to quit."));
  // The logger's info lines stay away from the screen.
  EXPECT_THAT(pty_->last(), Not(HasSubstr("Starting")));
  EXPECT_THAT(pty_->last(), Not(HasSubstr("connecting to")));
  pty_->send("\\q\r");
  EXPECT_EQ(pty_->wait(), 0);
}

TEST_F(ShellAtTerminal, EditingKeysRunTheCorrectedStatement) {
  if (!line_reader_can_edit()) GTEST_SKIP() << "built without line editing";
  start_shell();
  // "rray([i=9])", Ctrl-A, "A", Ctrl-E, two steps left, the 9 rubbed out and a 4 typed, Ctrl-E,
  // ";": the statement that runs is Array([i=4]).
  pty_->send("rray([i=9])");
  pty_->send(keys::kCtrlA);
  pty_->send("A");
  pty_->send(keys::kCtrlE);
  pty_->send(keys::kLeft);
  pty_->send(keys::kLeft);
  pty_->send(keys::kBackspace);
  pty_->send("4");
  pty_->send(keys::kCtrlE);
  const std::string out = type(";");
  EXPECT_THAT(out, HasSubstr("(4 rows)"));
  EXPECT_THAT(out, Not(HasSubstr("Error")));
}

TEST_F(ShellAtTerminal, UpRecallsThePreviousStatementAndTheHistoryFileKeepsWhatWasTyped) {
  if (!line_reader_can_edit()) GTEST_SKIP() << "built without line editing";
  const fs::path history = home_ / "history";
  start_shell({}, {{"KEST_HISTORY", history.string()}});
  EXPECT_THAT(type("Array([i=3]);"), HasSubstr("(3 rows)"));
  EXPECT_THAT(type("\\timing off"), HasSubstr("Timing is off."));
  pty_->send(keys::kUp);
  pty_->send(keys::kUp);
  EXPECT_THAT(type(""), HasSubstr("(3 rows)"));
  // A statement over two lines is one entry.
  EXPECT_THAT(type("Array(", continuation()), Not(HasSubstr("rows")));
  EXPECT_THAT(type("[i=2]);"), HasSubstr("(2 rows)"));
  pty_->send("\\q\r");
  EXPECT_EQ(pty_->wait(), 0);
  // Entries in order; a repeated entry once; a line end inside an entry as the byte 0x01.
  EXPECT_EQ(read_file(history),
            "Array([i=3]);\n\\timing off\nArray([i=3]);\nArray(\x01[i=2]);\n\\q\n");
}

TEST_F(ShellAtTerminal, ATypoReportsItsErrorAndTheNextStatementWorks) {
  start_shell();
  EXPECT_THAT(type("Arary([i=1]);"), HasSubstr("Error: Unknown relation Arary."));
  EXPECT_THAT(type("Array([i=1]);"), HasSubstr("(1 row)"));
  EXPECT_THAT(type("\\nosuch"), HasSubstr("Unknown command \\nosuch; \\? lists the commands."));
  pty_->send(keys::kCtrlD);
  EXPECT_EQ(pty_->wait(), 0);
}

TEST_F(ShellAtTerminal, CtrlCStopsALongResultAndTheNextStatementAnswers) {
  start_shell();
  pty_->send("Array([i=100000000]);\r");
  ASSERT_TRUE(pty_->expect("\xE2\x94\x82       5000\xE2\x94\x82"))
      << pty_->output().substr(0, 2000);
  pty_->send(keys::kCtrlC);
  // A hundred million rows take minutes to print: a prompt within seconds is the cancel.
  ASSERT_TRUE(pty_->expect("Cancelled: the rest of the result was not shown.", 5000ms));
  ASSERT_TRUE(pty_->expect(prompt(), 5000ms));
  EXPECT_THAT(type("Array([i=2]);"), HasSubstr("(2 rows)"));
  pty_->send("\\q\r");
  EXPECT_EQ(pty_->wait(), 0);
}

TEST_F(ShellAtTerminal, CtrlCAtThePromptDropsTheLineAndTheOpenStatement) {
  start_shell();
  type("Array([i=5]", continuation());
  pty_->send("garbage");
  pty_->send(keys::kCtrlC);
  ASSERT_TRUE(pty_->expect(prompt())) << pty_->output();
  EXPECT_THAT(type("Array([i=1]);"), HasSubstr("(1 row)"));
}

TEST_F(ShellAtTerminal, CtrlZStopsTheShellAndFgDrawsThePromptAndTheLineAgain) {
  if (!line_reader_can_edit()) GTEST_SKIP() << "built without line editing";
  if (!fs::exists("/bin/bash")) GTEST_SKIP() << "no job-control shell to stop the client in";
  // The client started by an interactive bash, which stops it on Ctrl-Z and continues it on fg.
  pty_ = std::make_unique<PtyProcess>();
  ASSERT_TRUE(pty_->start({"/bin/bash", "--norc", "--noprofile", "-i"}, env({{"PS1", "$ "}})));
  ASSERT_TRUE(pty_->expect("$ ")) << pty_->output();
  std::string command;
  for (const std::string& arg : client_args({"-o", "raw"})) command += "'" + arg + "' ";
  pty_->send(command + "\r");
  ASSERT_TRUE(pty_->expect(prompt())) << pty_->output();
  pty_->send("Arr");
  ASSERT_TRUE(pty_->expect("Arr"));
  pty_->send("\x1a");  // Ctrl-Z
  ASSERT_TRUE(pty_->expect("Stopped")) << pty_->output();
  ASSERT_TRUE(pty_->expect("$ ")) << pty_->output();
  pty_->send("fg\r");
  ASSERT_TRUE(pty_->expect(prompt() + "Arr")) << pty_->output();
  // The terminal is in the editor's mode again: what is typed is echoed once, by the editor.
  pty_->send("ay([i=2]);\r");
  ASSERT_TRUE(pty_->expect("0\r\n1\r\n" + prompt())) << pty_->output();
  EXPECT_THAT(pty_->last(), Not(HasSubstr("ay([i=2]);\r\nay([i=2]);")));
  pty_->send("\\q\r");
  ASSERT_TRUE(pty_->expect("$ ")) << pty_->output();
  pty_->send("exit $?\r");  // the client's status, as bash saw it
  EXPECT_EQ(pty_->wait(), 0);
}

TEST_F(ShellAtTerminal, ContinuationPromptsFollowStringsAndStatements) {
  start_shell();
  // A ";" inside a string does not end the statement; the prompt says a string is open.
  type("Project(Array([i=1]), [s = 'a;", continuation("'> "));
  EXPECT_THAT(type("b']);"), HasSubstr("a;\r\nb"));
  // Two statements on one line run in turn; the open rest waits for its ";".
  const std::string both = type("Array([i=1]); Array([i=2]); Array(", continuation());
  EXPECT_THAT(both, HasSubstr("(1 row)"));
  EXPECT_THAT(both, HasSubstr("(2 rows)"));
  EXPECT_THAT(type("[i=3]);"), HasSubstr("(3 rows)"));
}

TEST_F(ShellAtTerminal, ControlCharactersOfValuesAreShownEscaped) {
  start_shell();
  const std::string out = type(
      "Project(Array([i=1]), [s = 'a\\x1b[31mred\\x07'])"
      ";");
  EXPECT_THAT(out, HasSubstr("a\xE2\x90\x9B[31mred\xE2\x90\x87"));  // the pictures of ESC and BEL
  EXPECT_THAT(out, Not(HasSubstr("\x1b[31m")));
}

TEST_F(ShellAtTerminal, MetaCommandsChangeTheFormatTheOutputAndTheTiming) {
  start_shell();
  const std::string file = (home_ / "out.txt").string();
  EXPECT_THAT(type("\\format raw"), Not(HasSubstr("format:")));
  EXPECT_THAT(type("Array([i=2]);"), HasSubstr("0\r\n1\r\n"));
  type("\\o " + file);
  EXPECT_THAT(type("Project(Array([i=1]), [s = 'x\\x1b'])"
                   ";"),
              Not(HasSubstr("x\x1b")));
  type("\\o");
  EXPECT_EQ(read_file(file), "x\x1b\n");  // a file gets the bytes as they are
  EXPECT_THAT(type("\\timing"), HasSubstr("Timing is on."));
  EXPECT_THAT(type("Array([i=1]);"), testing::ContainsRegex("Time: [0-9]+\\.[0-9]{3} ms"));
  EXPECT_THAT(type("\\x"), HasSubstr("Vertical display is on."));
  EXPECT_THAT(type("Array([i=2]);"), HasSubstr("-[ row 2 ]\r\ni | 1\r\n"));
  EXPECT_THAT(type("\\x"), HasSubstr("Vertical display is off."));
  EXPECT_THAT(type("\\format csv"), Not(HasSubstr("format:")));
  EXPECT_THAT(type("Array([i=2]);"), HasSubstr("i\r\n0\r\n1\r\n"));
  EXPECT_THAT(type("\\format nosuch"),
              HasSubstr("\\format: needs one of ascii, unicode, raw, html, csv, tsv, json, "
                        "markdown, vertical"));
  EXPECT_THAT(type("\\?"), HasSubstr("\\c HOST [PORT]"));
  pty_->send("quit\r");
  EXPECT_EQ(pty_->wait(), 0);
}

TEST_F(ShellAtTerminal, IncludeRunsAFileAndConnectMovesToAnotherServer) {
  start_shell();
  const std::string out =
      type("\\i " + home_.write("script.kest", "Array([i=1]);\nnosuch;\nArray([i=2]);\n"));
  EXPECT_THAT(out, HasSubstr("(1 row)"));
  EXPECT_THAT(out, HasSubstr("Error: Unknown relation nosuch."));
  EXPECT_THAT(out, HasSubstr("(2 rows)"));
  // Port 1 of the loopback address: nothing listens; the session stays where it was.
  EXPECT_THAT(type("\\c 127.0.0.1 1"),
              HasSubstr("\\c: cannot connect to 127.0.0.1:1; still connected to " + where()));
  EXPECT_THAT(type("\\c 127.0.0.1 " + std::to_string(port_)), HasSubstr("Connected to " + where()));
  EXPECT_THAT(type("Array([i=1]);"), HasSubstr("(1 row)"));
}

TEST_F(ShellAtTerminal, ThePagerGetsTheRowsAsTheyStream) {
  // "cat" as the pager: what it passes on is what the shell fed it.
  start_shell({}, {{"KEST_PAGER", "on"}, {"PAGER", "cat"}});
  EXPECT_THAT(type("Array([i=3]);"), HasSubstr("(3 rows)"));
  EXPECT_THAT(type("\\pager off"), HasSubstr("Pager is off."));
}

TEST_F(ShellAtTerminal, OptionsThatNameTheQueriesKeepTheClassicRunAtATerminal) {
  for (const Args& query :
       {Args{"-e", "Array([i=2])"}, Args{"-p"}, Args{"--interactive", "-e", "Array([i=2])"}}) {
    PtyProcess pty;
    ASSERT_TRUE(pty.start(client_args(query), env()));
    EXPECT_EQ(pty.wait(), 0);
    EXPECT_THAT(pty.output(), Not(HasSubstr("> ")));
    EXPECT_THAT(pty.output(), Not(HasSubstr("connected to")));
  }
}

// --interactive asks for the shell where standard input is no terminal: plain lines, the same
// prompts, errors that keep the session open, status 0.
TEST_F(ShellE2E, InteractiveOverPipesReadsPlainLines) {
  const ProcessResult r = run_piped(
      {"--interactive", "-r"},
      "Array([i=2]);\nArary([i=1]);\nArr\x1b[Day([i=1]);\n\\format ascii\nArray([i=1]);\n");
  EXPECT_TRUE(r.exited);
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string p = prompt();
  EXPECT_EQ(r.out, "kest_client, connected to " + where() +
                       ".\nType \\? for the commands, \\q to quit.\n" + p + "0\n1\n" + p +
                       "Error: Unknown relation Arary.\n" + p + p + p +
                       "+-----------+\n|i          |\n|sint       |\n+-----------+\n|          0|\n"
                       "+-----------+\n(1 row)\n" +
                       p + "\n");
  EXPECT_THAT(r.err, HasSubstr("The line holds control characters and was not used"));
}

TEST_F(ShellE2E, AConnectionThatCannotBeMadeEndsTheShellWithMinusOne) {
  const ProcessResult r = run_piped({"--interactive", "-P", "1"}, "Array([i=1]);\n");
  EXPECT_EQ(r.status, -1);
  EXPECT_THAT(r.err, HasSubstr("kest_client: cannot connect to 127.0.0.1:1."));
  EXPECT_EQ(r.out, "");
}

}  // namespace
