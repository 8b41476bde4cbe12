// A value read from the cluster, decoded as the etcd store decodes a group
// or names document. What decodes must encode to a value that decodes to
// the same document, and encode again to the same bytes.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_util.h"
#include "hgx_etcd_doc.h"

using hgx_detail::etcd::decode_doc;
using hgx_detail::etcd::Doc;
using hgx_detail::etcd::encode_doc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Doc doc;
    if (!decode_doc(std::string_view(reinterpret_cast<const char*>(data), size), &doc)) return 0;
    const std::string encoded = encode_doc(doc);
    Doc again;
    if (!decode_doc(encoded, &again)) fuzz::finding("an encoded document does not decode", encoded);
    if (encode_doc(again) != encoded)
        fuzz::finding("a document changed on its way through a value", encoded);
    return 0;
}
