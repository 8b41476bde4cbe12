// The manifest: hgxrepo's JSON description of services, read into plain
// records with every name, type and value checked, and written back out.
#pragma once

#include <string>
#include <vector>

#include "hgx.h"

namespace manifest {

struct Property {
    std::string name;
    hgx_type_t type = HGX_TYPE_ASTRING;
    std::string blob;  // values as stored: each followed by a NUL byte
};

struct Group {
    std::string name;
    std::string type;
    std::vector<Property> properties;
    std::vector<Group> groups;
};

struct Instance {
    std::string name;
    std::vector<Group> groups;
};

struct Service {
    std::string name;
    std::vector<Group> groups;
    std::vector<Instance> instances;
};

struct Document {
    std::vector<Service> services;
};

// Reads one manifest text. On failure returns -1 and sets *error to one line,
// "NAME:LINE:COLUMN: what", NAME being how the text is named to the user.
int parse(const std::string& text, const std::string& name, Document* out, std::string* error);

// Quotes a text for a one-line message: double quotes, control bytes and
// backslashes escaped, long texts cut with "...".
std::string quote(const std::string& s, size_t max = 60);

}  // namespace manifest
