// Descriptors under construction: owned by the function that builds the tree,
// filled from a body of fields.
#pragma once

#include <cstring>

#include <mediafiles/descriptor.h>

#include "mediafiles/ownership.h"

namespace mediafiles {

using descriptor_ptr = owned<mp4_descriptor, mp4_descriptor_destroy>;

// NULL with errno ENOMEM.
descriptor_ptr make_descriptor(uint32_t tag, const auto &body)
{
    descriptor_ptr node(mp4_descriptor_create(tag, body.size()));
    if (node) memcpy(mp4_descriptor_buf(node.get()), body.data(), body.size());
    return node;
}

} // namespace mediafiles
