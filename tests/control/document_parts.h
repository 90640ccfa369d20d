#pragma once

#include <map>
#include <string>

namespace kelp::test {

// Compares each text by its name with what stands in the document between the marks "<!-- NAME -->" and
// "<!-- end of NAME -->". With KELP_WRITE_DOCUMENTS=1 in the environment it puts the texts there instead.
void expectDocumentShows(const std::string& file, const std::map<std::string, std::string>& parts);

}  // namespace kelp::test
