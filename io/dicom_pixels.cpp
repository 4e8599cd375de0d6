#include "dicom_pixels.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <stdexcept>

#include <gdcmBitmap.h>
#include <gdcmDataSet.h>
#include <gdcmFile.h>
#include <gdcmFileMetaInformation.h>
#include <gdcmFragment.h>
#include <gdcmPixelFormat.h>
#include <gdcmPhotometricInterpretation.h>
#include <gdcmReader.h>
#include <gdcmSequenceOfFragments.h>
#include <gdcmTransferSyntax.h>

#include "diagnostics.h"
#include "input_error.h"
#include "volume_files.h"

namespace zrio::dicom {

namespace {

// The codecs behind GDCM (OpenJPEG, CharLS, libjpeg) print some of their
// complaints straight to standard error, past GDCM's own switches; while one
// decodes, standard error goes to /dev/null unless the user asked for the
// libraries' text.
class CodecOutputSilenced {
public:
    CodecOutputSilenced() {
        if (LibraryDiagnosticsShown()) return;
        std::fflush(stderr);
        const int sink = ::open("/dev/null", O_WRONLY);
        if (sink < 0) return;
        saved_ = ::dup(STDERR_FILENO);
        if (saved_ >= 0) ::dup2(sink, STDERR_FILENO);
        ::close(sink);
    }
    ~CodecOutputSilenced() {
        if (saved_ < 0) return;
        std::fflush(stderr);
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
    }
    CodecOutputSilenced(const CodecOutputSilenced&) = delete;
    CodecOutputSilenced& operator=(const CodecOutputSilenced&) = delete;

private:
    int saved_ = -1;
};

const gdcm::Tag kPixelData(0x7fe0, 0x0010);

size_t FrameVoxels(const PixelStorage& s) { return static_cast<size_t>(s.rows) * s.columns; }

// Native data as the file holds it, for every frame.
std::vector<unsigned char> NativeBytesFromFile(const DicomImageFile& file) {
    const PixelStorage& s = file.storage;
    std::vector<unsigned char> bytes(s.NativeBytes());
    std::ifstream in(file.path, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(s.valueOffset));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!in) throw std::invalid_argument("cannot read its pixel data (the file changed since its header was read?)");
    return bytes;
}

// Native data of a deflated file, which only GDCM's reader can inflate.
std::vector<unsigned char> NativeBytesInflated(const DicomImageFile& file, const gdcm::DataSet& set) {
    const PixelStorage& s = file.storage;
    const gdcm::ByteValue* value = set.FindDataElement(kPixelData) ? set.GetDataElement(kPixelData).GetByteValue() : nullptr;
    if (!value || !value->GetPointer() || value->GetLength() < s.NativeBytes())
        throw std::invalid_argument("pixel data holds " + std::to_string(value ? static_cast<uint64_t>(value->GetLength()) : uint64_t{0}) +
                                    " bytes; its frames need " + std::to_string(s.NativeBytes()));
    const auto* p = reinterpret_cast<const unsigned char*>(value->GetPointer());
    return std::vector<unsigned char>(p, p + s.NativeBytes());
}

// One RLE-compressed frame: a 64-byte header of segment offsets, then one
// segment per byte of a voxel, most significant first, each a run-length
// coded plane of rows x columns bytes.
void DecodeRleFrame(const unsigned char* data, size_t size, const PixelStorage& s, size_t frame, unsigned char* out) {
    const int voxelBytes = s.bitsAllocated / 8;
    const size_t voxels = FrameVoxels(s);
    const std::string where = "RLE data of frame " + std::to_string(frame + 1);
    auto word = [&](size_t at) {
        return uint32_t{data[at]} | uint32_t{data[at + 1]} << 8 | uint32_t{data[at + 2]} << 16 | uint32_t{data[at + 3]} << 24;
    };
    if (size < 64) throw std::invalid_argument(where + " is shorter than its header");
    const uint32_t segments = word(0);
    if (segments != static_cast<uint32_t>(voxelBytes))
        throw std::invalid_argument(where + " has " + std::to_string(segments) + " segments; " +
                                    std::to_string(s.bitsAllocated) + "-bit voxels need " + std::to_string(voxelBytes));
    for (int segment = 0; segment < voxelBytes; ++segment) {
        const size_t begin = word(4 + 4 * static_cast<size_t>(segment));
        const size_t end = segment + 1 < voxelBytes ? word(8 + 4 * static_cast<size_t>(segment)) : size;
        if (begin < 64 || begin > end || end > size) throw std::invalid_argument(where + " has a segment outside it");
        // Segment 0 holds the most significant byte; voxels are written in
        // this machine's (little-endian) order.
        const int byteInVoxel = voxelBytes - 1 - segment;
        size_t written = 0, at = begin;
        auto put = [&](unsigned char b) { out[written++ * voxelBytes + byteInVoxel] = b; };
        while (written < voxels && at < end) {
            const int n = static_cast<signed char>(data[at++]);
            if (n >= 0) {
                const size_t count = static_cast<size_t>(n) + 1;
                if (at + count > end || written + count > voxels)
                    throw std::invalid_argument(where + " runs past its frame");
                for (size_t k = 0; k < count; ++k) put(data[at + k]);
                at += count;
            } else if (n != -128) {
                const size_t count = static_cast<size_t>(1 - n);
                if (at >= end || written + count > voxels) throw std::invalid_argument(where + " runs past its frame");
                const unsigned char b = data[at++];
                for (size_t k = 0; k < count; ++k) put(b);
            }
        }
        if (written < voxels)
            throw std::invalid_argument(where + " ends after " + std::to_string(written) + " of " +
                                        std::to_string(voxels) + " voxels");
    }
}

// The bytes of each frame's fragments: one fragment per frame, or every
// fragment for a single frame.
std::vector<std::vector<unsigned char>> FrameStreams(const gdcm::SequenceOfFragments& fragments, const PixelStorage& s) {
    const size_t count = fragments.GetNumberOfFragments();
    const size_t frames = static_cast<size_t>(s.frames);
    if (count != frames && frames != 1)
        throw std::invalid_argument("compressed pixel data holds " + std::to_string(count) + " fragments for " +
                                    std::to_string(frames) + " frames; frames spread over several fragments are not read");
    std::vector<std::vector<unsigned char>> streams(frames);
    for (size_t k = 0; k < count; ++k) {
        const gdcm::ByteValue* value = fragments.GetFragment(k).GetByteValue();
        if (!value || !value->GetPointer()) continue;
        const auto* p = reinterpret_cast<const unsigned char*>(value->GetPointer());
        std::vector<unsigned char>& stream = streams[frames == 1 ? 0 : k];
        stream.insert(stream.end(), p, p + value->GetLength());
    }
    return streams;
}

// The image a code stream says it holds.
struct StreamImage {
    uint32_t width = 0, height = 0, components = 0, precision = 0;
};

uint32_t BigEndianAt(const std::vector<unsigned char>& b, size_t at, int bytes) {
    uint32_t v = 0;
    for (int k = 0; k < bytes; ++k) v = v << 8 | b[at + static_cast<size_t>(k)];
    return v;
}

// The frame header (SOF) of a JPEG or JPEG-LS stream.
std::optional<StreamImage> JpegImage(const std::vector<unsigned char>& b) {
    if (b.size() < 4 || b[0] != 0xff || b[1] != 0xd8) return std::nullopt;
    size_t at = 2;
    while (at + 4 <= b.size()) {
        if (b[at] != 0xff) return std::nullopt;
        const unsigned char marker = b[at + 1];
        if (marker == 0xff) {  // fill byte
            ++at;
            continue;
        }
        if (marker == 0x01 || (marker >= 0xd0 && marker <= 0xd7)) {  // no length
            at += 2;
            continue;
        }
        const uint32_t length = BigEndianAt(b, at + 2, 2);
        const bool frameHeader = (marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc) ||
                                 marker == 0xf7;  // SOF55, JPEG-LS
        if (frameHeader) {
            if (at + 10 > b.size()) return std::nullopt;
            return StreamImage{BigEndianAt(b, at + 7, 2), BigEndianAt(b, at + 5, 2), b[at + 9], b[at + 4]};
        }
        at += 2 + length;
    }
    return std::nullopt;
}

// The image size (SIZ) of a JPEG 2000 code stream, bare or in a JP2 file.
std::optional<StreamImage> Jpeg2000Image(const std::vector<unsigned char>& b) {
    size_t at = 0;
    if (b.size() >= 12 && BigEndianAt(b, 4, 4) == 0x6a502020) {  // "jP  ": walk the boxes to "jp2c"
        at = 0;
        while (true) {
            if (at + 8 > b.size()) return std::nullopt;
            uint64_t length = BigEndianAt(b, at, 4);
            const uint32_t type = BigEndianAt(b, at + 4, 4);
            size_t header = 8;
            if (length == 1) {
                if (at + 16 > b.size()) return std::nullopt;
                length = uint64_t{BigEndianAt(b, at + 8, 4)} << 32 | BigEndianAt(b, at + 12, 4);
                header = 16;
            }
            if (type == 0x6a703263) {
                at += header;
                break;
            }
            if (length < header || length == 0) return std::nullopt;
            at += static_cast<size_t>(length);
        }
    }
    if (at + 43 > b.size() || BigEndianAt(b, at, 2) != 0xff4f || BigEndianAt(b, at + 2, 2) != 0xff51) return std::nullopt;
    const uint32_t width = BigEndianAt(b, at + 8, 4) - BigEndianAt(b, at + 16, 4);
    const uint32_t height = BigEndianAt(b, at + 12, 4) - BigEndianAt(b, at + 20, 4);
    return StreamImage{width, height, BigEndianAt(b, at + 40, 2), (b[at + 42] & 0x7fu) + 1u};
}

// GDCM's codecs assert on a stream whose image differs from the header's, so
// the stream's own header is read and compared first.
void CheckStream(const std::vector<unsigned char>& stream, const PixelStorage& s, bool jpeg2000, size_t frame) {
    const std::optional<StreamImage> image = jpeg2000 ? Jpeg2000Image(stream) : JpegImage(stream);
    const std::string what = "frame " + std::to_string(frame + 1) + (jpeg2000 ? "'s JPEG 2000" : "'s JPEG") + " stream";
    if (!image) throw std::invalid_argument(what + " has no image header it can be read by");
    if (image->width != static_cast<uint32_t>(s.columns) || image->height != static_cast<uint32_t>(s.rows) ||
        image->components != 1 || image->precision > static_cast<uint32_t>(s.bitsAllocated) || image->precision == 0)
        throw std::invalid_argument(what + " holds " + std::to_string(image->width) + " x " +
                                    std::to_string(image->height) + " pixels of " + std::to_string(image->components) +
                                    " component(s) at " + std::to_string(image->precision) + " bits; the header says " +
                                    std::to_string(s.columns) + " x " + std::to_string(s.rows) + " of 1 at up to " +
                                    std::to_string(s.bitsAllocated) + " bits");
}

// A frame compressed by JPEG, JPEG-LS or JPEG 2000, decoded by GDCM's codec
// as a 2-D image of one fragment.
void DecodeWithCodec(const std::vector<unsigned char>& stream, const PixelStorage& s, const gdcm::TransferSyntax& syntax,
                     size_t frame, unsigned char* out) {
    gdcm::Bitmap bitmap;
    bitmap.SetNumberOfDimensions(2);
    bitmap.SetDimension(0, static_cast<unsigned>(s.columns));
    bitmap.SetDimension(1, static_cast<unsigned>(s.rows));
    bitmap.SetPixelFormat(gdcm::PixelFormat(1, static_cast<unsigned short>(s.bitsAllocated),
                                            static_cast<unsigned short>(s.bitsStored),
                                            static_cast<unsigned short>(s.highBit), s.isSigned ? 1 : 0));
    bitmap.SetPhotometricInterpretation(gdcm::PhotometricInterpretation(
        s.photometric == "MONOCHROME1" ? gdcm::PhotometricInterpretation::MONOCHROME1
                                       : gdcm::PhotometricInterpretation::MONOCHROME2));
    bitmap.SetTransferSyntax(syntax);
    gdcm::Fragment fragment;
    fragment.SetByteValue(reinterpret_cast<const char*>(stream.data()), static_cast<uint32_t>(stream.size()));
    gdcm::SmartPointer<gdcm::SequenceOfFragments> fragments = new gdcm::SequenceOfFragments;
    fragments->AddFragment(fragment);
    // Fragments have an undefined length; SetVLToUndefined would assert for OB.
    gdcm::DataElement pixels(kPixelData, gdcm::VL(0xffffffffu), gdcm::VR::OB);
    pixels.SetValue(*fragments);
    pixels.SetVL(gdcm::VL(0xffffffffu));
    bitmap.SetDataElement(pixels);
    const size_t bytes = FrameVoxels(s) * static_cast<size_t>(s.bitsAllocated / 8);
    if (bitmap.GetBufferLength() != bytes)
        throw std::invalid_argument("frame " + std::to_string(frame + 1) + " does not decode to its size");
    std::vector<char> decoded(bytes);
    bool done = false;
    try {
        const CodecOutputSilenced silenced;
        done = bitmap.GetBuffer(decoded.data());
    } catch (...) {
        done = false;
    }
    if (!done)
        throw std::invalid_argument("cannot decode frame " + std::to_string(frame + 1) + " (transfer syntax " +
                                    s.transferSyntax + ")");
    std::memcpy(out, decoded.data(), bytes);
}

std::vector<unsigned char> DecodeEncapsulated(const DicomImageFile& file, const gdcm::DataSet& set,
                                              const gdcm::TransferSyntax& syntax) {
    const PixelStorage& s = file.storage;
    const gdcm::SequenceOfFragments* fragments =
        set.FindDataElement(kPixelData) ? set.GetDataElement(kPixelData).GetSequenceOfFragments() : nullptr;
    if (!fragments) throw std::invalid_argument("compressed pixel data holds no fragments");
    const std::vector<std::vector<unsigned char>> streams = FrameStreams(*fragments, s);
    const size_t frameBytes = FrameVoxels(s) * static_cast<size_t>(s.bitsAllocated / 8);
    // A few bytes of compressed data may claim frames of any size.
    if (static_cast<double>(frameBytes) * static_cast<double>(streams.size()) > static_cast<double>(PhysicalMemoryBytes() / 2))
        throw std::invalid_argument("its " + std::to_string(streams.size()) + " frames of " + std::to_string(s.columns) +
                                    " x " + std::to_string(s.rows) + " voxels are too large for this machine's memory");
    std::vector<unsigned char> out(frameBytes * streams.size());
    using TS = gdcm::TransferSyntax;
    const TS::TSType type = syntax;
    const bool jpeg2000 = type == TS::JPEG2000Lossless || type == TS::JPEG2000;
    const bool jpeg = type == TS::JPEGBaselineProcess1 || type == TS::JPEGExtendedProcess2_4 ||
                      type == TS::JPEGLosslessProcess14 || type == TS::JPEGLosslessProcess14_1 ||
                      type == TS::JPEGLSLossless || type == TS::JPEGLSNearLossless;
    if (type != TS::RLELossless && !jpeg && !jpeg2000)
        throw std::invalid_argument("pixel data is compressed as " + s.transferSyntax +
                                    ", which this program does not decode (it reads RLE, JPEG, JPEG-LS and JPEG 2000)");
    for (size_t k = 0; k < streams.size(); ++k) {
        if (type == TS::RLELossless) {
            DecodeRleFrame(streams[k].data(), streams[k].size(), s, k, out.data() + k * frameBytes);
        } else {
            CheckStream(streams[k], s, jpeg2000, k);
            DecodeWithCodec(streams[k], s, syntax, k, out.data() + k * frameBytes);
        }
    }
    return out;
}

// Voxels of `bits` bits in this machine's order: the stored bits of each,
// masked and sign-extended.
template <class Word>
void KeepStoredBits(std::vector<unsigned char>& bytes, const PixelStorage& s) {
    const int shift = s.highBit + 1 - s.bitsStored;
    if (shift == 0 && s.bitsStored == s.bitsAllocated) return;
    const uint64_t mask = s.bitsStored >= 64 ? ~uint64_t{0} : (uint64_t{1} << s.bitsStored) - 1;
    const uint64_t sign = uint64_t{1} << (s.bitsStored - 1);
    for (size_t at = 0; at + sizeof(Word) <= bytes.size(); at += sizeof(Word)) {
        Word w;
        std::memcpy(&w, bytes.data() + at, sizeof(Word));
        uint64_t v = (static_cast<uint64_t>(w) >> shift) & mask;
        if (s.isSigned && (v & sign)) v |= ~mask;  // two's complement in the wider word
        w = static_cast<Word>(v);
        std::memcpy(bytes.data() + at, &w, sizeof(Word));
    }
}

void SwapEach(std::vector<unsigned char>& bytes, size_t width) {
    for (size_t at = 0; at + width <= bytes.size(); at += width) std::reverse(bytes.begin() + at, bytes.begin() + at + width);
}

}  // namespace

int VoxelBytes(const PixelStorage& storage) { return storage.bitsAllocated <= 8 ? 1 : storage.bitsAllocated / 8; }

std::vector<unsigned char> ReadStoredFrames(const DicomImageFile& file) {
    const PixelStorage& s = file.storage;
    try {
        std::vector<unsigned char> bytes;
        if (!s.encapsulated && !s.deflated) {
            bytes = NativeBytesFromFile(file);
            // The file's byte order is that of its whole voxels.
            if (s.bigEndian && s.bitsAllocated > 8) SwapEach(bytes, static_cast<size_t>(s.bitsAllocated / 8));
        } else {
            gdcm::Reader reader;
            reader.SetFileName(file.path.c_str());
            bool read = false;
            try {
                read = reader.Read();
            } catch (...) {
                read = false;
            }
            if (!read) throw std::invalid_argument("cannot read the file's pixel data");
            const gdcm::DataSet& set = reader.GetFile().GetDataSet();
            const gdcm::TransferSyntax syntax = reader.GetFile().GetHeader().GetDataSetTransferSyntax();
            bytes = s.deflated ? NativeBytesInflated(file, set) : DecodeEncapsulated(file, set, syntax);
        }
        static_assert(std::endian::native == std::endian::little, "voxels are assembled little-endian");
        if (s.bitsAllocated == 1) {
            // Bits in order of voxels, the first in the lowest bit of a byte;
            // frames follow one another without padding.
            const size_t voxels = FrameVoxels(s) * static_cast<size_t>(s.frames);
            std::vector<unsigned char> unpacked(voxels);
            for (size_t k = 0; k < voxels; ++k) unpacked[k] = (bytes[k / 8] >> (k % 8)) & 1u;
            return unpacked;
        }
        switch (s.bitsAllocated) {
            case 8: KeepStoredBits<uint8_t>(bytes, s); break;
            case 16: KeepStoredBits<uint16_t>(bytes, s); break;
            case 32: KeepStoredBits<uint32_t>(bytes, s); break;
        }
        return bytes;
    } catch (const std::invalid_argument& e) {
        throw InputError(file.path, e.what());
    }
}

}  // namespace zrio::dicom
