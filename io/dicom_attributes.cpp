#include "dicom_attributes.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include <gdcmByteValue.h>
#include <gdcmDataElement.h>
#include <gdcmSequenceOfItems.h>

namespace zrio::dicom {

namespace {

std::string Trimmed(std::string text) {
    const char* padding = " \t\r\n";
    while (!text.empty() && (text.back() == '\0' || std::strchr(padding, text.back()))) text.pop_back();
    size_t first = 0;
    while (first < text.size() && (text[first] == '\0' || std::strchr(padding, text[first]))) ++first;
    return text.substr(first);
}

const gdcm::ByteValue* Bytes(const gdcm::DataSet& set, const gdcm::Tag& tag) {
    if (!set.FindDataElement(tag)) return nullptr;
    const gdcm::DataElement& element = set.GetDataElement(tag);
    if (element.IsEmpty()) return nullptr;
    return element.GetByteValue();
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

}  // namespace

std::string Text(const gdcm::DataSet& set, const gdcm::Tag& tag) {
    const gdcm::ByteValue* bytes = Bytes(set, tag);
    if (!bytes || !bytes->GetPointer()) return {};
    std::string text = Trimmed(std::string(bytes->GetPointer(), bytes->GetLength()));
    // Text from a file reaches one-line messages and lists: no control
    // characters (a line break in a series description would split a line).
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return text;
}

std::vector<std::string> TextValues(const gdcm::DataSet& set, const gdcm::Tag& tag) {
    const std::string text = Text(set, tag);
    std::vector<std::string> values;
    if (text.empty()) return values;
    size_t start = 0;
    while (true) {
        const size_t end = text.find('\\', start);
        values.push_back(Trimmed(text.substr(start, end == std::string::npos ? std::string::npos : end - start)));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return values;
}

std::optional<long long> ParseWholeNumber(const std::string& text) {
    const std::string t = Trimmed(text);
    if (t.empty()) return std::nullopt;
    const char* begin = t.data() + (t[0] == '+' ? 1 : 0);
    long long value = 0;
    const auto [end, error] = std::from_chars(begin, t.data() + t.size(), value);
    if (error != std::errc() || end != t.data() + t.size()) return std::nullopt;
    return value;
}

std::optional<double> ParseDecimal(const std::string& text) {
    const std::string t = Trimmed(text);
    if (t.empty()) return std::nullopt;
    const char* begin = t.data() + (t[0] == '+' ? 1 : 0);
    double value = 0.0;
    const auto [end, error] = std::from_chars(begin, t.data() + t.size(), value);
    if (error != std::errc() || end != t.data() + t.size() || !std::isfinite(value)) return std::nullopt;
    return value;
}

std::optional<std::vector<double>> Decimals(const gdcm::DataSet& set, const gdcm::Tag& tag, const char* name) {
    const std::vector<std::string> texts = TextValues(set, tag);
    if (texts.empty()) return std::nullopt;
    std::vector<double> values;
    for (const std::string& text : texts) {
        const std::optional<double> value = ParseDecimal(text);
        if (!value) throw std::invalid_argument(std::string(name) + " " + Quoted(Text(set, tag)) + " is not a list of numbers");
        values.push_back(*value);
    }
    return values;
}

std::optional<double> Decimal(const gdcm::DataSet& set, const gdcm::Tag& tag, const char* name) {
    const auto values = Decimals(set, tag, name);
    if (!values) return std::nullopt;
    return values->front();
}

std::optional<uint16_t> UnsignedShort(const gdcm::DataSet& set, const gdcm::Tag& tag, const char* name) {
    const gdcm::ByteValue* bytes = Bytes(set, tag);
    if (!bytes) return std::nullopt;
    // GDCM hands binary values in this machine's byte order, whatever the
    // file's transfer syntax.
    if (bytes->GetLength() != 2 || !bytes->GetPointer())
        throw std::invalid_argument(std::string(name) + " holds " + std::to_string(bytes->GetLength()) +
                                    " bytes, not one 16-bit number");
    uint16_t value = 0;
    std::memcpy(&value, bytes->GetPointer(), 2);
    return value;
}

std::optional<gdcm::DataSet> SequenceItem(const gdcm::DataSet& set, const gdcm::Tag& tag, size_t index) {
    if (!set.FindDataElement(tag)) return std::nullopt;
    const gdcm::DataElement& element = set.GetDataElement(tag);
    if (element.IsEmpty()) return std::nullopt;
    gdcm::SmartPointer<gdcm::SequenceOfItems> items = element.GetValueAsSQ();
    if (!items || index >= items->GetNumberOfItems()) return std::nullopt;
    return items->GetItem(index + 1).GetNestedDataSet();
}

size_t SequenceLength(const gdcm::DataSet& set, const gdcm::Tag& tag) {
    if (!set.FindDataElement(tag)) return 0;
    const gdcm::DataElement& element = set.GetDataElement(tag);
    if (element.IsEmpty()) return 0;
    gdcm::SmartPointer<gdcm::SequenceOfItems> items = element.GetValueAsSQ();
    return items ? items->GetNumberOfItems() : 0;
}

}  // namespace zrio::dicom
