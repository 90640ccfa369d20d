#include "control/document_parts.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace kelp::test {

namespace {

// The text between the marks of `name`; changed to `by` if that is wanted.
std::string markedPart(std::string& document, const std::string& name, const std::string* by) {
    const std::string open = "<!-- " + name + " -->\n";
    const auto begin = document.find(open) + open.size();
    const auto end = document.find("<!-- end of " + name + " -->", begin);
    if (document.find(open) == std::string::npos || end == std::string::npos) {
        ADD_FAILURE() << "the document has no mark " << name;
        return "";
    }
    const std::string part = document.substr(begin, end - begin);
    if (by) {
        document.replace(begin, end - begin, *by);
    }
    return part;
}

}  // namespace

void expectDocumentShows(const std::string& file, const std::map<std::string, std::string>& parts) {
    std::ostringstream read;
    read << std::ifstream(file).rdbuf();
    std::string document = read.str();
    const bool write = std::getenv("KELP_WRITE_DOCUMENTS") != nullptr;
    for (const auto& [name, text] : parts) {
        const std::string part = markedPart(document, name, write ? &text : nullptr);
        if (!write) {
            EXPECT_EQ(part, text) << file << " is out of date: run this test with KELP_WRITE_DOCUMENTS=1";
        }
    }
    if (write) {
        std::ofstream(file) << document;
    }
}

}  // namespace kelp::test
