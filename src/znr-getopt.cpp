#include <plexa/znr-error.h>
#include <plexa/znr-getopt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

// Defined here too, so that the DLL exports them: a Windows program that
// binds one to a reference imports it.
constexpr unsigned int ZNRGetopt::npos;

ZNRGetopt::ZNRGetopt() : permute_(true) {}

ZNRGetopt::~ZNRGetopt() {}

std::uint64_t ZNRGetopt::AddOption(int id, char short_name, char const* long_name,
                                   Argument_t argument) {
    std::string const name = long_name != nullptr ? long_name : "";
    if (short_name == 0 && name.empty()) return ZNR_ERROR_INVALID_PARAM;
    // Printable ASCII by value: the C library's classes follow the global locale.
    if (short_name != 0 && (short_name <= ' ' || short_name >= 0x7F || short_name == '-'))
        return ZNR_ERROR_INVALID_PARAM;
    if (name.find('=') != std::string::npos || name[0] == '-') return ZNR_ERROR_INVALID_PARAM;
    if (argument != ARGUMENT_NONE && argument != ARGUMENT_REQUIRED &&
        argument != ARGUMENT_OPTIONAL)
        return ZNR_ERROR_INVALID_PARAM;
    for (Option const& o : *options_) {
        if ((short_name != 0 && o.short_name == short_name) ||
            (!name.empty() && o.long_name == name))
            return ZNR_ERROR_INVALID_PARAM;
    }
    options_->push_back({id, short_name, name, argument});
    return 0;
}

std::uint64_t ZNRGetopt::Parse(int argc, char const* const* argv) {
    found_->clear();
    operands_->clear();
    error_text_->clear();
    if (argc > 0 && argv == nullptr) return ZNR_ERROR_INVALID_PARAM;
    bool options_ended = false;
    for (int i = 1; i < argc && argv[i] != nullptr; ++i) {
        char const* const arg = argv[i];
        if (options_ended || arg[0] != '-' || arg[1] == '\0') {
            operands_->push_back(arg);
            if (!permute_) options_ended = true;
            continue;
        }
        if (std::strcmp(arg, "--") == 0) {
            options_ended = true;
            continue;
        }
        std::uint64_t const rc = arg[1] == '-' ? ParseLong(arg, argc, argv, &i)
                                               : ParseShort(arg, argc, argv, &i);
        if (rc != 0) return rc;
    }
    return 0;
}

std::uint64_t ZNRGetopt::ParseLong(char const* arg, int argc, char const* const* argv,
                                   int* index) {
    char const* const body = arg + 2;
    char const* const eq = std::strchr(body, '=');
    std::string const name = eq != nullptr ? std::string(body, eq) : std::string(body);
    Option const* option = nullptr;
    std::uint64_t const rc = FindLong(name, &option);
    if (rc != 0) return rc;
    std::string const shown = "'--" + option->long_name + "'";
    if (eq != nullptr) {
        if (option->argument == ARGUMENT_NONE)
            return Fail(ZNR_ERROR_OPTION_ARGUMENT, "option " + shown + " doesn't allow an argument");
        Add(*option, eq + 1);
    } else if (option->argument == ARGUMENT_REQUIRED) {
        // Taken as it is, even when it looks like an option: "--name -x".
        if (*index + 1 >= argc || argv[*index + 1] == nullptr)
            return Fail(ZNR_ERROR_OPTION_ARGUMENT, "option " + shown + " needs an argument");
        Add(*option, argv[++*index]);
    } else {
        Add(*option, nullptr);
    }
    return 0;
}

std::uint64_t ZNRGetopt::ParseShort(char const* arg, int argc, char const* const* argv,
                                    int* index) {
    for (char const* p = arg + 1; *p != '\0'; ++p) {
        Option const* const option = FindShort(*p);
        if (option == nullptr) return Fail(ZNR_ERROR_UNKNOWN_OPTION, std::string("unknown option '-") + *p + "'");
        if (option->argument == ARGUMENT_NONE) {
            Add(*option, nullptr);
            continue;
        }
        // The rest of the cluster is the argument, if there is a rest.
        if (p[1] != '\0') {
            Add(*option, p + 1);
        } else if (option->argument == ARGUMENT_OPTIONAL) {
            Add(*option, nullptr);
        } else if (*index + 1 >= argc || argv[*index + 1] == nullptr) {
            return Fail(ZNR_ERROR_OPTION_ARGUMENT, std::string("option '-") + *p + "' needs an argument");
        } else {
            Add(*option, argv[++*index]);
        }
        break;
    }
    return 0;
}

ZNRGetopt::Option const* ZNRGetopt::FindShort(char name) const {
    for (Option const& o : *options_) {
        if (o.short_name == name) return &o;
    }
    return nullptr;
}

std::uint64_t ZNRGetopt::FindLong(std::string const& name, Option const** out) {
    Option const* prefixed = nullptr;
    unsigned int prefix_count = 0;
    for (Option const& o : *options_) {
        if (o.long_name.empty()) continue;
        if (o.long_name == name) {
            *out = &o;
            return 0;
        }
        if (!name.empty() && o.long_name.compare(0, name.size(), name) == 0) {
            prefixed = &o;
            ++prefix_count;
        }
    }
    if (prefix_count == 1) {
        *out = prefixed;
        return 0;
    }
    if (prefix_count > 1) return Fail(ZNR_ERROR_UNKNOWN_OPTION, "option '--" + name + "' is ambiguous");
    return Fail(ZNR_ERROR_UNKNOWN_OPTION, "unknown option '--" + name + "'");
}

std::uint64_t ZNRGetopt::Fail(std::uint64_t code, std::string const& text) {
    *error_text_ = text;
    return code;
}

void ZNRGetopt::Add(Option const& option, char const* argument) {
    found_->push_back({option.id, argument != nullptr, argument != nullptr ? argument : ""});
}

unsigned int ZNRGetopt::GetOptionCount() const { return static_cast<unsigned int>(found_->size()); }

int ZNRGetopt::GetOptionId(unsigned int index) const {
    return index < found_->size() ? (*found_)[index].id : -1;
}

char const* ZNRGetopt::GetOptionArgument(unsigned int index) const {
    if (index >= found_->size() || !(*found_)[index].has_argument) return nullptr;
    return (*found_)[index].argument.c_str();
}

unsigned int ZNRGetopt::Find(int id) const {
    for (std::size_t i = found_->size(); i-- > 0;) {
        if ((*found_)[i].id == id) return static_cast<unsigned int>(i);
    }
    return npos;
}

char const* ZNRGetopt::GetArgument(int id) const { return GetOptionArgument(Find(id)); }

std::uint64_t ZNRGetopt::GetNumber(int id, long long low, long long high, long long* value) {
    unsigned int const index = Find(id);
    if (index == npos) return 0;
    char const* const text = GetOptionArgument(index);
    // strtoll would skip blanks and take a '+' before the digits.
    char const* const first = text != nullptr && text[0] == '-' ? text + 1 : text;
    bool const digits = first != nullptr && *first >= '0' && *first <= '9';
    char* end = nullptr;
    errno = 0;
    long long const number = digits ? std::strtoll(text, &end, 10) : 0;
    if (digits && errno == 0 && *end == '\0' && number >= low && number <= high) {
        *value = number;
        return 0;
    }
    std::string name;
    for (Option const& o : *options_) {
        if (o.id != id) continue;
        name = o.long_name.empty() ? std::string("-") + o.short_name : "--" + o.long_name;
        break;
    }
    return Fail(ZNR_ERROR_OPTION_ARGUMENT, "bad value for '" + name + "': '" + (text != nullptr ? text : "") +
                                  "' (expected " + std::to_string(low) + ".." + std::to_string(high) + ")");
}

unsigned int ZNRGetopt::GetOperandCount() const {
    return static_cast<unsigned int>(operands_->size());
}

char const* ZNRGetopt::GetOperand(unsigned int index) const {
    return index < operands_->size() ? (*operands_)[index].c_str() : nullptr;
}

char const* ZNRGetopt::GetErrorText() const { return error_text_->c_str(); }
