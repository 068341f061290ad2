// Strict base64 against OpenSSL, and percent-encoding.
#include <memory>
#if KELTO_WITH_OPENSSL
#include <openssl/evp.h>
#endif

#include "../Fuzz.h"
#include "CmStrict.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

constexpr CmBase64Alphabet ALPHABETS[] = {CmBase64Alphabet::STANDARD, CmBase64Alphabet::URL};
constexpr CmBase64Padding PADDINGS[] = {CmBase64Padding::REQUIRED, CmBase64Padding::NONE,
                                        CmBase64Padding::OPTIONAL};

#if KELTO_WITH_OPENSSL
// OpenSSL also takes blanks around a text and bits left over; a text that it writes itself from
// what it read is the one that is right.
bool IsRight(const std::string& aText, std::string& aBytes) {
    const auto* pText = reinterpret_cast<const unsigned char*>(aText.data());
    std::string sBytes(aText.size() / 4 * 3 + 3, '\0');
    const int nLength = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&sBytes[0]), pText,
                                        static_cast<int>(aText.size()));
    if (nLength < 0 || aText.size() % 4 != 0) {
        return false;
    }
    size_t nPadding = 0;
    while (nPadding < 2 && nPadding < aText.size() && aText[aText.size() - 1 - nPadding] == '=') {
        ++nPadding;
    }
    if (static_cast<size_t>(nLength) < nPadding) {
        return false;
    }
    sBytes.resize(static_cast<size_t>(nLength) - nPadding);
    std::string sAgain(sBytes.size() / 3 * 4 + 5, '\0');
    sAgain.resize(static_cast<size_t>(EVP_EncodeBlock(
        reinterpret_cast<unsigned char*>(&sAgain[0]),
        reinterpret_cast<const unsigned char*>(sBytes.data()), static_cast<int>(sBytes.size()))));
    aBytes = sBytes;
    return sAgain == aText;
}
#endif

void TryBase64(const std::string& aText) {
    CCmString strText;
    CCmString strBytes;
    for (const CmBase64Alphabet alphabet : ALPHABETS) {
        for (const CmBase64Padding padding : PADDINGS) {
            Require(CmEncodeBase64(aText, strText, alphabet, padding) == CM_OK, "encodes");
            Require(CmDecodeBase64(strText, strBytes, alphabet, padding) && strBytes == aText,
                    "round trip");
            const CCmParsed parsed = CmDecodeBase64(aText, strBytes, alphabet, padding);
            Require(parsed.m_nAt <= aText.size(), "the place lies in the text");
            if (parsed && padding != CmBase64Padding::OPTIONAL) {
                Require(CmEncodeBase64(strBytes, strText, alphabet, padding) == CM_OK &&
                            strText == aText,
                        "there is one text only");
            }
            // What is too small is known before anything is written.
            const size_t nRoom = strBytes.size() / 2;
            const std::unique_ptr<char[]> pOut(new char[nRoom]);
            size_t nLength = 0;
            Require(!CmDecodeBase64(aText, pOut.get(), nRoom, nLength, alphabet, padding) ||
                        strBytes.size() == nRoom,
                    "room");
        }
    }
#if KELTO_WITH_OPENSSL
    std::string sTheirs;
    const bool bTheirs = IsRight(aText, sTheirs);
    Require(bTheirs == static_cast<bool>(CmDecodeBase64(aText, strBytes)), "right texts");
    Require(!bTheirs || strBytes == sTheirs, "the bytes");
#endif
}

void TryPercentEncoding(const std::string& aText) {
    CCmString strEncoded;
    CCmString strDecoded;
    Require(CmPercentEncode(aText, strEncoded) == CM_OK, "encodes");
    Require(CmPercentDecode(strEncoded, strDecoded) && strDecoded == aText, "round trip");
    Require(CmPercentDecode(strEncoded, strDecoded, CmPlus::IS_BLANK) && strDecoded == aText,
            "there is no plus in it");
    const CCmParsed parsed = CmPercentDecode(aText, strDecoded);
    Require(parsed ? strDecoded.size() <= aText.size() : aText[parsed.m_nAt] == '%', "the place");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::string sText = kelto_fuzz::Input(aData, aSize).Rest();
    TryBase64(sText);
    TryPercentEncoding(sText);
    return 0;
}
