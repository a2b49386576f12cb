#include <plexa/znr-error.h>
#include <plexa/znr-getopt.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class GetoptTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0u, opt.AddOption('a', 'a', "all", ZNRGetopt::ARGUMENT_NONE));
        ASSERT_EQ(0u, opt.AddOption('b', 'b', nullptr, ZNRGetopt::ARGUMENT_NONE));
        ASSERT_EQ(0u, opt.AddOption('o', 'o', "output", ZNRGetopt::ARGUMENT_REQUIRED));
        ASSERT_EQ(0u, opt.AddOption('c', 'c', "color", ZNRGetopt::ARGUMENT_OPTIONAL));
        ASSERT_EQ(0u, opt.AddOption('V', 0, "verbose", ZNRGetopt::ARGUMENT_NONE));
        ASSERT_EQ(0u, opt.AddOption('v', 0, "version", ZNRGetopt::ARGUMENT_NONE));
    }

    // Parses "prog" + args; renders the options as id[=arg], "|", the operands,
    // then " !<error number> <error text>" when either is set.
    std::string Run(std::vector<char const*> args) {
        args.insert(args.begin(), "prog");
        std::uint64_t const rc = opt.Parse(static_cast<int>(args.size()), args.data());
        std::string out;
        for (unsigned int i = 0; i < opt.GetOptionCount(); ++i) {
            out += static_cast<char>(opt.GetOptionId(i));
            if (opt.GetOptionArgument(i) != nullptr) out += std::string("=") + opt.GetOptionArgument(i);
            out += ' ';
        }
        out += '|';
        for (unsigned int i = 0; i < opt.GetOperandCount(); ++i) out += std::string(" ") + opt.GetOperand(i);
        if (rc != 0 || *opt.GetErrorText() != '\0') {
            std::string number = std::to_string(rc);
            for (int n : {1, 53, 54}) number = rc == ZNRUserError(n) ? std::to_string(n) : number;
            out += " !" + number + " " + opt.GetErrorText();
        }
        return out;
    }

    ZNRGetopt opt;
};

// An error stops the parse and keeps what came before; the next parse
// (successes follow the errors) clears it.
TEST_F(GetoptTest, ParsesCommandLines) {
    struct {
        std::vector<char const*> args;
        char const* expected;
    } const cases[] = {
        {{"-x"}, "| !53 unknown option '-x'"},
        {{"-abx", "y"}, "a b | !53 unknown option '-x'"},
        {{"--x=1"}, "| !53 unknown option '--x'"},
        {{"--ver"}, "| !53 option '--ver' is ambiguous"},
        {{"--alls"}, "| !53 unknown option '--alls'"},
        {{"--="}, "| !53 unknown option '--'"},
        {{"op", "-o"}, "| op !54 option '-o' needs an argument"},
        {{"-ao"}, "a | !54 option '-o' needs an argument"},
        {{"--out"}, "| !54 option '--output' needs an argument"},
        {{"--all=yes"}, "| !54 option '--all' doesn't allow an argument"},
        {{}, "|"},
        {{"-ab", "-ba"}, "a b b a |"},
        {{"-o", "value"}, "o=value |"},
        {{"-abofile", "x"}, "a b o=file | x"},
        {{"-ab", "-o", "-a"}, "a b o=-a |"},  // a required argument is taken as it stands
        {{"-o", ""}, "o= |"},
        {{"-c", "x"}, "c | x"},  // optional: only attached
        {{"-cred"}, "c=red |"},
        {{"-acblue"}, "a c=blue |"},
        {{"--all", "--output=f", "--output", "g"}, "a o=f o=g |"},
        {{"--output="}, "o= |"},
        {{"--output", "--all"}, "o=--all |"},
        {{"--color", "x", "--color=", "--color=blue"}, "c c= c=blue | x"},
        {{"--al", "--out=x", "--verb", "--vers"}, "a o=x V v |"},  // unique prefixes
        {{"x", "-a", "y", "--output", "z", "w"}, "a o=z | x y w"},  // permutation
        {{"-a", "--", "-b", "--all", "--"}, "a | -b --all --"},
        {{"-", "-a", "-"}, "a | - -"},
        {{"--output=a=b"}, "o=a=b |"},
    };
    for (auto const& c : cases) EXPECT_EQ(c.expected, Run(c.args));
}

TEST_F(GetoptTest, DefinitionsLookupsAndPosixOrder) {
    std::uint64_t const bad = ZNRUserError(1);
    EXPECT_EQ(bad, opt.AddOption(1, 0, nullptr, ZNRGetopt::ARGUMENT_NONE));
    EXPECT_EQ(bad, opt.AddOption(1, 0, "", ZNRGetopt::ARGUMENT_NONE));
    EXPECT_EQ(bad, opt.AddOption(1, '-', "dash", ZNRGetopt::ARGUMENT_NONE));
    EXPECT_EQ(bad, opt.AddOption(1, ' ', "space", ZNRGetopt::ARGUMENT_NONE));
    EXPECT_EQ(bad, opt.AddOption(1, 0, "a=b", ZNRGetopt::ARGUMENT_NONE));
    EXPECT_EQ(bad, opt.AddOption(1, 0, "-x", ZNRGetopt::ARGUMENT_NONE));
    EXPECT_EQ(bad, opt.AddOption(1, 'a', "new", ZNRGetopt::ARGUMENT_NONE));  // taken names
    EXPECT_EQ(bad, opt.AddOption(1, 'n', "all", ZNRGetopt::ARGUMENT_NONE));
    EXPECT_EQ(bad, opt.AddOption(1, 'n', "new", static_cast<ZNRGetopt::Argument_t>(3)));
    EXPECT_EQ(bad, opt.Parse(2, nullptr));

    EXPECT_EQ("o=1 a o=2 |", Run({"-o1", "-a", "--output=2"}));
    EXPECT_EQ(2u, opt.Find('o'));
    EXPECT_STREQ("2", opt.GetArgument('o'));
    EXPECT_EQ(nullptr, opt.GetArgument('a'));
    EXPECT_EQ(ZNRGetopt::npos, opt.Find('b'));
    EXPECT_EQ(-1, opt.GetOptionId(3));
    EXPECT_EQ(nullptr, opt.GetOperand(0));

    // Numbers: bounds inclusive, decimal only, the whole text.
    ASSERT_EQ(0u, opt.AddOption('n', 0, "port", ZNRGetopt::ARGUMENT_REQUIRED));
    long long n = 7;
    EXPECT_EQ(0u, opt.GetNumber('n', 1, 65535, &n));  // absent: untouched
    EXPECT_EQ(7, n);
    struct {
        char const* text;
        char const* result;
    } const numbers[] = {
        {"1", "1"}, {"65535", "65535"}, {"0080", "80"}, {"0", "'0' (expected 1..65535)"},
        {"65536", "'65536' (expected 1..65535)"}, {"-1", "'-1' (expected 1..65535)"},
        {" 80", "' 80' (expected 1..65535)"}, {"+80", "'+80' (expected 1..65535)"},
        {"80x", "'80x' (expected 1..65535)"}, {"0x50", "'0x50' (expected 1..65535)"},
        {"", "'' (expected 1..65535)"}, {"99999999999999999999", "'99999999999999999999' (expected 1..65535)"},
    };
    for (auto const& c : numbers) {
        Run({"--port", c.text});
        n = 7;
        std::uint64_t const rc = opt.GetNumber('n', 1, 65535, &n);
        std::string const got = rc == 0 ? std::to_string(n) : opt.GetErrorText();
        EXPECT_EQ(rc == 0 ? c.result : std::string("bad value for '--port': ") + c.result, got) << c.text;
        EXPECT_EQ(rc == 0 ? 0u : ZNRUserError(54), rc);
    }
    Run({"-o", "-5"});
    EXPECT_EQ(0u, opt.GetNumber('o', -10, -1, &n));
    EXPECT_EQ(-5, n);
    Run({"-c"});  // an optional argument left out
    EXPECT_EQ(ZNRUserError(54), opt.GetNumber('c', 0, 9, &n));
    EXPECT_STREQ("bad value for '--color': '' (expected 0..9)", opt.GetErrorText());

    // Without permutation the first operand ends the options.
    opt.SetPermute(false);
    EXPECT_EQ("a | x -b --all", Run({"-a", "x", "-b", "--all"}));
    // A null entry ends the vector early.
    char const* const argv[] = {"prog", "-a", nullptr, "-b"};
    EXPECT_EQ(0u, opt.Parse(4, argv));
    EXPECT_EQ(1u, opt.GetOptionCount());
}

}  // namespace
