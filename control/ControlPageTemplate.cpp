#include "ControlPageTemplate.h"

#include <openssl/evp.h>

#include <array>
#include <string_view>

#include "ControlMapSVG.h"
#include "ControlPageParts.h"

namespace {

constexpr std::string_view kOpening = "{{";
constexpr std::string_view kClosing = "}}";

/** @p text's hash in the form of a content security policy; empty, which allows nothing, when there
 * is none to be had.
 */
std::string hashOf(std::string_view text)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> hash = {};
    unsigned size = 0;
    if (EVP_Digest(text.data(), text.size(), hash.data(), &size, EVP_sha256(), nullptr) != 1) {
        return {};
    }
    std::array<unsigned char, size_t{2}* EVP_MAX_MD_SIZE> encoded = {};
    const int length = EVP_EncodeBlock(encoded.data(), hash.data(), static_cast<int>(size));
    return "sha256-" + std::string(encoded.begin(), encoded.begin() + length);
}

}  // namespace

std::string filledReportPage(ControlPageTexts texts)
{
    const std::string style = std::string(kControlPageCSS) + mapSVGStyle();
    texts["style"] = style;
    texts["styleHash"] = hashOf(style);
    texts["script"] = kControlPageJS;
    texts["scriptHash"] = hashOf(kControlPageJS);

    std::string page;
    std::string_view rest = kControlPageHTML;
    for (size_t place = rest.find(kOpening); place != std::string_view::npos;
         place = rest.find(kOpening)) {
        page += rest.substr(0, place);
        rest.remove_prefix(place + kOpening.size());
        const size_t end = rest.find(kClosing);
        const auto text = texts.find(rest.substr(0, end));
        page += text == texts.end() ? std::string() : text->second;
        rest.remove_prefix(end + kClosing.size());
    }
    page += rest;
    return page;
}
