// Attribute values of a DICOM data set as our own types, read without GDCM's
// attribute helpers (which assert on a value of the wrong length): text is
// trimmed of its padding, numbers are parsed strictly so that "1A" is not
// taken for 1, and every reader says when a value is absent or malformed
// instead of guessing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gdcmDataSet.h>
#include <gdcmTag.h>

namespace zrio::dicom {

// The text of an attribute with leading and trailing spaces and NULs removed;
// empty when absent.
std::string Text(const gdcm::DataSet& set, const gdcm::Tag& tag);

// The values of a multi-valued text attribute (DS, IS), split at '\'.
std::vector<std::string> TextValues(const gdcm::DataSet& set, const gdcm::Tag& tag);

// A whole number written as text, strictly: digits with an optional sign
// between padding spaces. nullopt for anything else ("1A", "", "2.5").
std::optional<long long> ParseWholeNumber(const std::string& text);
// A decimal number (DS), strictly; nullopt when it is not one or not finite.
std::optional<double> ParseDecimal(const std::string& text);

// All values of a DS attribute; nullopt when absent; throws
// std::invalid_argument naming the attribute when a value is not a number.
std::optional<std::vector<double>> Decimals(const gdcm::DataSet& set, const gdcm::Tag& tag, const char* name);
// The first value of a DS attribute, as above.
std::optional<double> Decimal(const gdcm::DataSet& set, const gdcm::Tag& tag, const char* name);

// An unsigned 16-bit binary attribute (US); nullopt when absent; throws
// std::invalid_argument when its length is not 2 bytes.
std::optional<uint16_t> UnsignedShort(const gdcm::DataSet& set, const gdcm::Tag& tag, const char* name);

// Item `index` (0-based) of a sequence attribute, copied (GDCM may parse a
// sequence read as bytes into a temporary); nullopt when the sequence is
// absent or shorter.
std::optional<gdcm::DataSet> SequenceItem(const gdcm::DataSet& set, const gdcm::Tag& tag, size_t index = 0);
// The number of items of a sequence attribute (0 when absent).
size_t SequenceLength(const gdcm::DataSet& set, const gdcm::Tag& tag);

}  // namespace zrio::dicom
