#include "rtls-gateway-check/zpl_file.h"

#include "daemon_comparison.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace rtls::check {

using testing::IsEmpty;

namespace {

// The library complains of faults on the standard output: thousands of lines here.
class silence {
public:
    silence() : m_output(dup(STDOUT_FILENO))
    {
        (void)fflush(stdout);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
    ~silence()
    {
        (void)fflush(stdout);
        dup2(m_output, STDOUT_FILENO);
        close(m_output);
    }
    silence(const silence&) = delete;
    silence& operator=(const silence&) = delete;

private:
    int m_output;
};

std::string content_of(const std::filesystem::path& path)
{
    std::ifstream stream{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{stream}, {}};
}

std::vector<std::string> samples()
{
    const std::filesystem::path root{RTLS_SOURCE_DIR};
    std::vector<std::string> texts{content_of(root / "config/rtls-gateway.conf")};
    for (const char* folder : {"fuzz/corpus/configuration", "fuzz/corpus/config_check"})
        for (const auto& entry : std::filesystem::directory_iterator{root / folder})
            texts.push_back(content_of(entry.path()));
    return texts;
}

// Texts that begin as one of the samples, and are then worked on by somebody careless.
class careless_editor {
public:
    explicit careless_editor(unsigned seed) : m_random(seed), m_samples(samples()) {}

    std::string next()
    {
        std::string text = m_samples[below(m_samples.size())];
        for (size_t changes = 1 + below(4); changes > 0; --changes)
            change(text);
        return text;
    }

private:
    size_t below(size_t bound) { return std::uniform_int_distribution<size_t>{0, bound - 1}(m_random); }

    std::string piece()
    {
        static const std::string pieces[] = {
            "    ", " ",  "  ", "\t",     "\n", "=",  " = ",   "#",    " #",        "\"",
            "'",    "/",  ":",  "\r",     "\v", "\f", "ports", "win",  "\n    win", "a/b",
            "%s",   "\\", "$",  "-_@.&+", "*",  ",",  "(",     "\xE4", "\x85",      "\xEF\xBB\xBF"};
        const size_t which = below(std::size(pieces) + 2);
        if (which < std::size(pieces))
            return pieces[which];
        return {static_cast<char>(below(256))};
    }

    void change(std::string& text)
    {
        const size_t at = below(text.size() + 1);
        switch (below(4)) {
        case 0:
            text.insert(at, piece());
            break;
        case 1:
            text.erase(at, 1 + below(6));
            break;
        case 2: { // a line more
            const size_t begin = text.rfind('\n', at) + 1;
            text.insert(begin, text.substr(begin, text.find('\n', begin) - begin + 1));
            break;
        }
        default:
            text.replace(at, 1, piece());
        }
    }

    std::mt19937 m_random;
    std::vector<std::string> m_samples;
};

} // namespace

TEST(zpl_file, any_text_is_what_the_library_makes_of_it)
{
    const silence quiet;
    careless_editor editor{20261122};
    size_t readable = 0;
    for (int i = 0; i < 6000; ++i) {
        const std::string text = editor.next();
        ASSERT_EQ(difference_of_trees(text), "") << text;
        readable += parse_zpl(text).faults.empty() ? 1 : 0;
    }
    EXPECT_GT(readable, 1000U);
    EXPECT_LT(readable, 5000U);
}

TEST(zpl_file, every_character_in_each_place)
{
    const silence quiet;
    for (int c = 0; c < 256; ++c)
        for (const char* pattern : {"?", "?a = b", "a? = b", "a?= b", "a =?b", "a = b?", "a = 'b?'",
                                    "a = 'b'?", "    ?# c", "a\n    ?b = c", "/?/", "a = ?"}) {
            std::string text = pattern;
            text[text.find('?')] = static_cast<char>(c);
            EXPECT_EQ(difference_of_trees(text), "") << pattern << " with " << c;
        }
}

TEST(zpl_file, a_file_is_its_text)
{
    const std::string text = content_of(std::filesystem::path{RTLS_SOURCE_DIR} / "config/rtls-gateway.conf");
    const temp_file file{"some.conf", text};
    const zconfig_ptr tree{zconfig_load(file.path())};
    ASSERT_NE(tree, nullptr);
    EXPECT_EQ(difference(parse_zpl(text).root, tree.get()), "");
}

TEST(zpl_file, items_know_their_lines)
{
    const zpl_file file = parse_zpl("# one\n\nports\n    win = 1\r\n    # five\n    win = 2\nlast");
    EXPECT_THAT(file.faults, IsEmpty());
    EXPECT_EQ(file.root.locate("ports")->line, 3U);
    EXPECT_EQ(file.root.locate("ports/win")->line, 4U);
    EXPECT_EQ(file.root.locate("ports/win")->value, "1");
    EXPECT_EQ(file.root.locate("ports")->children[1].line, 6U);
    EXPECT_EQ(file.root.locate("last")->line, 7U);
    EXPECT_EQ(file.root.locate("ports/terminal"), nullptr);
    EXPECT_EQ(file.root.locate("last/win"), nullptr);
}

TEST(zpl_file, the_first_of_a_name_alone_is_found)
{
    const zpl_file file = parse_zpl("ports\n    win = 1\nports\n    terminal = 2\n");
    EXPECT_EQ(file.root.locate("ports/terminal"), nullptr);
    EXPECT_EQ(file.root.children.size(), 2U);
}

// All faults at once; and the tree that was meant, so that the rest can be looked at.
TEST(zpl_file, faults_are_all_told_and_what_was_meant_is_kept)
{
    const struct {
        const char* text;
        std::vector<std::string> faults;
        const char* path;
        const char* value;
    } cases[] = {
        {"a\n  b = 1\n  c: 2\n",
         {"2: indented by 2 blanks", "3: indented by 2 blanks",
          "3: between the name and its value there is no ="},
         "a/c",
         "2"},
        {"a\n\tb = 1\n", {"2: indented by a tab"}, "a/b", "1"},
        {"a\n  b = 1\n    c = 2\n", {"2: indented by 2 blanks"}, "a/c", "2"},
        {"a\n        b = 1\n", {"2: indented deeper than one level below \"a\""}, "a/b", "1"},
        {"    a = 1\n", {"1: indented deeper than one level below \"the file\""}, "a", "1"},
        {"a = \"1\n", {"1: the quotation mark \" is not closed"}, "a", "1"},
        {"a = '1' 2 # 3\n", {"1: \"2 # 3\" stands behind the quoted value"}, "a", "1"},
        {"a 1\n", {"1: between the name and its value there is no ="}, "a", "1"},
        {"*\nb = 1\n", {"1: no name stands before \"*\""}, "b", "1"},
        {"/a = 1\nb = 2\n", {"1: the name \"/a\" begins or ends with a slash"}, "b", "2"},
        {"\xEF\xBB\xBF"
         "a = 1\n",
         {"1: a byte-order mark stands before the text"},
         "a",
         "1"},
        {" # b\na = 1\n", {"1: indented by 1 blank"}, "a", "1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const zpl_file file = parse_zpl(c.text);
        std::vector<std::string> faults;
        for (const zpl_fault& fault : file.faults)
            faults.push_back(std::to_string(fault.line) + ": " + fault.text);
        EXPECT_EQ(faults, c.faults);
        const zpl_item* item = file.root.locate(c.path);
        ASSERT_NE(item, nullptr);
        EXPECT_EQ(item->value, c.value);
    }
}

TEST(zpl_file, oddities_are_seen)
{
    const struct {
        std::string text;
        zpl_oddity then;
    } cases[] = {
        {"a = b # c", zpl_oddity::none},
        {"a = b#c", zpl_oddity::cut_at_sign},
        {"a = 'b#c'", zpl_oddity::none},
        {"a = # c", zpl_oddity::begins_with_sign},
        {"a =# c", zpl_oddity::none},
        {"a # c", zpl_oddity::none},
        {{"a = b\0c", 7}, zpl_oddity::cut_at_zero},
    };
    for (const auto& c : cases)
        EXPECT_EQ(parse_zpl(c.text).root.locate("a")->oddity, c.then) << c.text;
}

} // namespace rtls::check
