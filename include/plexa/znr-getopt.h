#ifndef PLEXA_ZNR_GETOPT_H
#define PLEXA_ZNR_GETOPT_H

#include <plexa/znr-export.h>
#include <plexa/znr-stl-adapter.h>

#include <cstdint>
#include <string>
#include <vector>

/// Command-line parsing in the POSIX/GNU manner, with no global state:
/// clustered short options (-abc), short arguments attached or apart
/// (-ovalue, -o value), long options (--name=value, --name value), unique
/// prefixes of long names, "--" ending the options, "-" as an operand, and
/// operands kept in order wherever they stand (unless permutation is off).
/// Optional arguments are taken only when attached (-ovalue, --name=value).
/// Command lines are bytes in the process's encoding and are kept as given.
/// Library errors: 1 invalid option definition or argument vector, 53 unknown
/// or ambiguous option, 54 option argument missing or not allowed.
///
/// Not thread-safe: one thread uses an object at a time.
class ZNR_API ZNRGetopt {
public:
    /// Whether an option takes an argument.
    enum Argument_t { ARGUMENT_NONE = 0, ARGUMENT_REQUIRED = 1, ARGUMENT_OPTIONAL = 2 };
    /** @var ZNRGetopt::ARGUMENT_NONE
     *  Takes none; one attached to a long name is error 54.
     *  @var ZNRGetopt::ARGUMENT_REQUIRED
     *  Takes one, attached or apart; missing is error 54.
     *  @var ZNRGetopt::ARGUMENT_OPTIONAL
     *  Takes one only when attached. */

    /// What Find() returns for an option not found.
    static constexpr unsigned int npos = 0xFFFFFFFFu;

    /// No options defined, permutation on.
    ZNRGetopt();
    /// Nothing to release.
    virtual ~ZNRGetopt();

    /// Defines an option reported as id. short_name 0 means none; long_name
    /// null or empty means none; at least one is needed. The short name is a
    /// printable character other than '-'; the long name has no '=' and does
    /// not start with '-'. A name already defined gives library error 1.
    std::uint64_t AddOption(int id, char short_name, char const* long_name, Argument_t argument);
    /// True (the default): operands may stand between options. False: the
    /// first operand ends the options, as POSIX asks.
    void SetPermute(bool permute) { permute_ = permute; }

    /// Parses argv[1] up to argv[argc - 1] (or the first null), replacing
    /// earlier results. On an error it stops there and keeps what came before.
    /// The strings are copied: argv need not outlive the call.
    std::uint64_t Parse(int argc, char const* const* argv);

    /// The options found, in command-line order.
    unsigned int GetOptionCount() const;
    /// -1 when index is out of range.
    int GetOptionId(unsigned int index) const;
    /// Null when the option got no argument or index is out of range. The
    /// text stays the parser's, valid until the next Parse.
    char const* GetOptionArgument(unsigned int index) const;
    /// Index of the last occurrence of id, or npos.
    unsigned int Find(int id) const;
    /// True when id was found.
    bool IsSet(int id) const { return Find(id) != npos; }
    /// The argument of the last occurrence of id; null when absent or none.
    char const* GetArgument(int id) const;
    /// Reads the argument of the last occurrence of id as a decimal number
    /// in [low, high] into *value (the caller's). Same thread as Parse.
    /// Returns 0 when it is, or when id did not occur (*value untouched);
    /// library error 54 otherwise (no argument, not a number, out of the
    /// range), with GetErrorText() naming the option, the text and the
    /// range ("bad value for '--port': '70000' (expected 0..65535)").
    std::uint64_t GetNumber(int id, long long low, long long high, long long* value);

    /// The operands found, in command-line order.
    unsigned int GetOperandCount() const;
    /// Operand index; null when out of range.
    char const* GetOperand(unsigned int index) const;

    /// Text of the last Parse error ("unknown option '--x'", "option '-o'
    /// needs an argument"); empty after a successful Parse.
    char const* GetErrorText() const;

private:
    struct Option {
        int id;
        char short_name;
        std::string long_name;
        Argument_t argument;
    };
    struct Found {
        int id;
        bool has_argument;
        std::string argument;
    };

    Option const* FindShort(char name) const;
    std::uint64_t FindLong(std::string const& name, Option const** out);
    std::uint64_t ParseLong(char const* arg, int argc, char const* const* argv, int* index);
    std::uint64_t ParseShort(char const* arg, int argc, char const* const* argv, int* index);
    std::uint64_t Fail(std::uint64_t code, std::string const& text);
    void Add(Option const& option, char const* argument);

    ZNRStlAdapter<std::vector<Option>> options_;
    ZNRStlAdapter<std::vector<Found>> found_;
    ZNRStlAdapter<std::vector<std::string>> operands_;
    ZNRStlAdapter<std::string> error_text_;
    bool permute_;
};

#endif
