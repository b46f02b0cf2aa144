#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <utility>

#include "support/Failures.h"

using namespace Ostrelink::Native::Failures;

namespace {

// The docs write a line end as the two characters \n.
std::string asDocumented(const std::string& text) {
    return std::regex_replace(text, std::regex("\n"), "\\n");
}

// The first `text` of every row of the two code tables, by form and code.
std::map<std::pair<Form, std::string>, std::string> documentedTexts() {
    std::ifstream docs(OSTRELINK_ERRORS_DOC);
    EXPECT_TRUE(docs.is_open());
    const std::regex row(R"(^\| (\d{3}) \| `([^`]*)`)");
    std::map<std::pair<Form, std::string>, std::string> texts;
    const Form* form = nullptr;
    static const Form launcher = Form::Launcher, native = Form::Native;
    for (std::string line; std::getline(docs, line);) {
        if (line.rfind("## ", 0) == 0) {
            form = line == "## JVM launcher"                       ? &launcher
                   : line == "## Endpoints, transport and support" ? &native
                                                                   : nullptr;
        }
        std::smatch match;
        if (form != nullptr && std::regex_search(line, match, row)) {
            EXPECT_TRUE(texts.emplace(std::make_pair(*form, match[1]), match[2]).second)
                << "documented twice: " << match[1];
        }
    }
    return texts;
}

TEST(Failures, TheCatalogueAndDocsErrorsMdHoldTheSameCodesAndTexts) {
    auto documented = documentedTexts();
    std::size_t count = 0;
    const Entry* entries = catalogue(count);
    for (std::size_t i = 0; i < count; ++i) {
        const Entry& entry = entries[i];
        const auto found = documented.find({entry.form, entry.number});
        ASSERT_NE(found, documented.end()) << "not in docs/errors.md: " << entry.number;
        const std::string text = found->second;
        documented.erase(found);
        if (entry.tail == nullptr) {
            EXPECT_EQ(text, asDocumented(Ostrelink::Native::Failures::text(entry.failure)));
            continue;
        }
        // The variable part is written as a <placeholder>.
        const std::string fixed = asDocumented(Ostrelink::Native::Failures::text(entry.failure));
        const std::string tail = asDocumented(entry.tail);
        ASSERT_GE(text.size(), fixed.size() + 2) << text;
        const std::string before = fixed.substr(0, fixed.size() - tail.size());
        const std::string middle =
            text.substr(before.size(), text.size() - before.size() - tail.size());
        EXPECT_EQ(text.substr(0, before.size()), before);
        EXPECT_EQ(text.substr(text.size() - tail.size()), tail) << text;
        EXPECT_TRUE(middle.front() == '<' && middle.back() == '>') << text;
    }
    for (const auto& [code, text] : documented) {
        ADD_FAILURE() << "not in the catalogue: " << text;
    }
}

}  // namespace
