// Writes processed audio to AIFF, WAVE and MPEG-4 AAC files through status-returning C-style
// calls: create, set the client format, write blocks of non-interleaved float, dispose.
#pragma once

#include "VellAudio/AudioTypes.h"

#include <cstdint>

namespace vell {

class ExtAudioFile;
/// An open output file. Made by ExtAudioFileCreateWithURL, freed by ExtAudioFileDispose.
using ExtAudioFileRef = ExtAudioFile*;

using UInt32 = std::uint32_t;
using AudioFileTypeID = std::uint32_t;
using AudioFormatPropertyID = std::uint32_t;
using ExtAudioFilePropertyID = std::uint32_t;

// ---- File types.
inline constexpr AudioFileTypeID kAudioFileAIFFType = fourCharCode("AIFF");
inline constexpr AudioFileTypeID kAudioFileWAVEType = fourCharCode("WAVE");
inline constexpr AudioFileTypeID kAudioFileM4AType = fourCharCode("m4af");

// ---- Formats and flags (linear PCM and its float, packed and non-interleaved flags are in
// AudioTypes.h).
inline constexpr OSType kAudioFormatMPEG4AAC = fourCharCode("aac ");
inline constexpr std::uint32_t kAudioFormatFlagIsBigEndian = 1u << 1;
inline constexpr std::uint32_t kAudioFormatFlagIsSignedInteger = 1u << 2;
/// mFormatFlags of an AAC description may name the object type; only low complexity is written.
inline constexpr std::uint32_t kMPEG4Object_AAC_LC = 2;

/// ExtAudioFileCreateWithURL flag: replace an existing file instead of failing.
inline constexpr UInt32 kAudioFileFlags_EraseFile = 1;

// ---- Properties.
/// [AudioStreamBasicDescription] the format the caller writes in.
inline constexpr ExtAudioFilePropertyID kExtAudioFileProperty_ClientDataFormat =
    fourCharCode("cfmt");
/// [AudioStreamBasicDescription] the format stored in the file (read only).
inline constexpr ExtAudioFilePropertyID kExtAudioFileProperty_FileDataFormat = fourCharCode("ffmt");
/// [AudioStreamBasicDescription] in and out: completes a description from its format, rate and
/// channel count.
inline constexpr AudioFormatPropertyID kAudioFormatProperty_FormatInfo = fourCharCode("fmti");

// ---- Status codes. A null or malformed argument returns paramErr (-50). Failures of the operating
// system (no such directory, file exists, disk full, file too large) return its errno value, which
// is positive.
inline constexpr OSStatus kAudioFileUnspecifiedError = OSStatus(fourCharCode("wht?"));
inline constexpr OSStatus kAudioFileUnsupportedFileTypeError = OSStatus(fourCharCode("typ?"));
inline constexpr OSStatus kAudioFileUnsupportedDataFormatError = OSStatus(fourCharCode("fmt?"));
inline constexpr OSStatus kAudioFormatUnsupportedPropertyError = OSStatus(fourCharCode("prop"));
inline constexpr OSStatus kAudioFormatBadPropertySizeError = OSStatus(fourCharCode("!siz"));
inline constexpr OSStatus kAudioFormatUnsupportedDataFormatError = OSStatus(fourCharCode("fmt?"));
inline constexpr OSStatus kExtAudioFileError_InvalidProperty = -66561;
inline constexpr OSStatus kExtAudioFileError_InvalidPropertySize = -66562;
inline constexpr OSStatus kExtAudioFileError_NonPCMClientFormat = -66563;
inline constexpr OSStatus kExtAudioFileError_InvalidOperationOrder = -66565;
inline constexpr OSStatus kExtAudioFileError_InvalidDataFormat = -66566;
/// Encoding or writing failed without an errno to report.
inline constexpr OSStatus kExtAudioFileError_WriteFailed = OSStatus(fourCharCode("wrt!"));

// Thread: any but the render thread; one thread at a time per file. None of these throws.

/// kAudioFormatProperty_FormatInfo: *outPropertyData is a description with mFormatID (and for
/// AAC the rate and channel count) set; the derived fields are filled in. Linear PCM gets one
/// frame per packet, its byte sizes and IsPacked; AAC gets 1024 frames per packet and zero byte
/// and bit sizes (variable). The specifier (a codec cookie) is not used.
OSStatus AudioFormatGetProperty(AudioFormatPropertyID propertyID, UInt32 specifierSize,
                                const void* specifier, UInt32* ioPropertyDataSize,
                                void* outPropertyData);

/// Creates a file at path (a file-system path, not a URL). The format must suit the type:
/// AIFF takes 16-bit big-endian signed linear PCM, WAVE 16-bit little-endian signed linear PCM
/// (both interleaved, 1 to 8 channels, 8 to 384 kHz); M4A takes MPEG-4 AAC (low complexity,
/// 128 kb/s per channel) at a rate AAC defines (8 to 96 kHz), 1 to 8 channels the encoder can
/// lay out. Without kAudioFileFlags_EraseFile an existing file is refused (EEXIST). The client
/// format starts as non-interleaved float at the file's rate and channel count. channelLayout
/// is not used (pass null). On failure no file is left at path.
OSStatus ExtAudioFileCreateWithURL(const char* path, AudioFileTypeID fileType,
                                   const AudioStreamBasicDescription* fileFormat,
                                   const void* channelLayout, UInt32 flags,
                                   ExtAudioFileRef* outFile);

/// kExtAudioFileProperty_ClientDataFormat: non-interleaved 32-bit float, 1 to 8 channels, 1 to
/// 768 kHz (a fractional rate is rounded). The rate and channel count are converted to the
/// file's with libswresample (its default remix: a mono client reaches both sides at -3 dB).
/// Settable until the first frame is written; conversion buffers are sized here.
OSStatus ExtAudioFileSetProperty(ExtAudioFileRef file, ExtAudioFilePropertyID propertyID,
                                 UInt32 propertyDataSize, const void* propertyData);

/// kExtAudioFileProperty_ClientDataFormat or kExtAudioFileProperty_FileDataFormat.
OSStatus ExtAudioFileGetProperty(ExtAudioFileRef file, ExtAudioFilePropertyID propertyID,
                                 UInt32* ioPropertyDataSize, void* outPropertyData);

/// Writes one block: one buffer per client channel. The frames written are numberFrames or, if
/// fewer, what the smallest buffer holds (mDataByteSize / 4); a caller may pass its block size
/// and say in mDataByteSize how much of each buffer is filled. Samples are converted to 16-bit
/// by rounding to nearest with clipping, no dither; AAC is encoded from float. A failed write
/// (disk full, file-size limit) returns errno or kExtAudioFileError_WriteFailed, and every
/// later write returns the same; the file is still finished by ExtAudioFileDispose. No
/// allocation of its own beyond amortised growth of the packet index of an M4A file.
OSStatus ExtAudioFileWrite(ExtAudioFileRef file, UInt32 numberFrames, const AudioBufferList* data);

/// Finishes the file (drains the converter and encoder, writes the sizes and the M4A index),
/// closes and frees it. A file that was never written to is a valid empty file. After a failed
/// write the file is cut to what reached the disk and left playable (an M4A file keeps the
/// whole packets that fit beside its index); that counts as success, since the write already
/// reported the loss. A failure while finishing returns its status, the file still playable
/// where the disk allows.
OSStatus ExtAudioFileDispose(ExtAudioFileRef file);

} // namespace vell
