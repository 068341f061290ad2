// Parses a URL, prints it and parses what was printed.
#include "../Fuzz.h"
#include "CmHttpUrl.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::string sSpec = std::string(kelto_fuzz::Input(aData, aSize).Rest().c_str());
    CCmHttpUrl url;
    if (!url.Init(sSpec)) {
        return 0;
    }
    const CCmString strPrinted = url.GetAsciiSpec();
    Require(strPrinted.compare(0, url.GetScheme().size() + 3, url.GetScheme() + "://") == 0,
            "what is printed starts with the scheme");
    if (url.GetScheme() == "file") {
        Require(url.GetHostName().empty() && url.GetPort() == 0, "a file has no host");
        return 0;
    }
    Require(!url.GetHostName().empty(), "there is a host");
    Require(url.GetPort() != 0, "there is a port");
    Require(!url.GetPath().empty() && url.GetPath()[0] == '/', "the path starts with a slash");

    CCmHttpUrl again;
    Require(again.Init(strPrinted), "what is printed can be parsed");
    Require(again.GetScheme() == url.GetScheme(), "scheme");
    Require(again.GetHostName() == url.GetHostName(), "host");
    Require(again.GetPath() == url.GetPath(), "path");
    Require(again.GetPort() == url.GetPort(), "port");
    Require(again.GetAsciiSpec() == strPrinted, "printing is stable");

    again.SetPort(static_cast<unsigned short>(aSize * 257));
    again.SetPath(sSpec);
    again.SetNameAndPort(sSpec);
    again.GetNameAndPort(1);
    again.GetAsciiSpec();
    return 0;
}
