// LinuxPropertyLists: property lists by libplist, their XML form alone.
#pragma once

#include "platform/PropertyList.h"

namespace quillmark::os {

class LinuxPropertyLists final : public PropertyLists {
 public:
  // Refuses more than 16 MiB, elements nested deeper than 64, and comments or marked sections that hold a tag. Dates,
  // data and keys of other kinds come out as values of no kind.
  PropertyList parse(std::string_view text) override;
  // Strings are well-formed UTF-8 without control characters other than tab and line feed: names with
  // NameEscapes::controls are.
  std::string write(const PropertyList& list) override;
};

}  // namespace quillmark::os
