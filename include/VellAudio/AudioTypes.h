// Plain audio records shared by the file, reader, graph and device layers: stream
// descriptions, buffer lists, time stamps, render flags and component descriptions.
#pragma once

#include <array>
#include <cstdint>

namespace vell {

/// Status of every graph, unit and device call: 0 is success.
using OSStatus = std::int32_t;
inline constexpr OSStatus noErr = 0;

using OSType = std::uint32_t;

/// A four-character code, "aumx" → 'a' << 24 | 'u' << 16 | 'm' << 8 | 'x'.
constexpr OSType fourCharCode(const char (&code)[5]) noexcept
{
    return (OSType(std::uint8_t(code[0])) << 24) | (OSType(std::uint8_t(code[1])) << 16) |
           (OSType(std::uint8_t(code[2])) << 8) | OSType(std::uint8_t(code[3]));
}

inline constexpr OSType kAudioFormatLinearPCM = fourCharCode("lpcm");
inline constexpr std::uint32_t kAudioFormatFlagIsFloat = 1u << 0;
inline constexpr std::uint32_t kAudioFormatFlagIsPacked = 1u << 3;
inline constexpr std::uint32_t kAudioFormatFlagIsNonInterleaved = 1u << 5;

/// The basic description of a PCM stream.
struct AudioStreamBasicDescription {
    double mSampleRate = 0;
    OSType mFormatID = 0;
    std::uint32_t mFormatFlags = 0;
    std::uint32_t mBytesPerPacket = 0;
    std::uint32_t mFramesPerPacket = 0;
    std::uint32_t mBytesPerFrame = 0;
    std::uint32_t mChannelsPerFrame = 0;
    std::uint32_t mBitsPerChannel = 0;
    std::uint32_t mReserved = 0;

    friend bool operator==(const AudioStreamBasicDescription&,
                           const AudioStreamBasicDescription&) = default;
};

/// The engine's client format: 32-bit float, non-interleaved (one buffer per channel).
constexpr AudioStreamBasicDescription makeFloatNonInterleavedFormat(double sampleRate,
                                                                    std::uint32_t channels) noexcept
{
    AudioStreamBasicDescription d;
    d.mSampleRate = sampleRate;
    d.mFormatID = kAudioFormatLinearPCM;
    d.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked |
                     kAudioFormatFlagIsNonInterleaved;
    d.mBytesPerPacket = sizeof(float);
    d.mFramesPerPacket = 1;
    d.mBytesPerFrame = sizeof(float);
    d.mChannelsPerFrame = channels;
    d.mBitsPerChannel = 32;
    return d;
}

struct AudioBuffer {
    std::uint32_t mNumberChannels = 0;
    std::uint32_t mDataByteSize = 0;
    void* mData = nullptr;
};

/// A list of buffers, one per channel for non-interleaved audio. Fixed capacity so it can live
/// on the render thread's stack.
struct AudioBufferList {
    static constexpr std::uint32_t kMaxBuffers = 8;
    std::uint32_t mNumberBuffers = 0;
    std::array<AudioBuffer, kMaxBuffers> mBuffers{};
};

inline constexpr std::uint32_t kAudioTimeStampSampleTimeValid = 1u << 0;
inline constexpr std::uint32_t kAudioTimeStampHostTimeValid = 1u << 1;

struct AudioTimeStamp {
    double mSampleTime = 0;
    std::uint64_t mHostTime = 0;
    double mRateScalar = 1.0;
    std::uint32_t mFlags = 0;
};

using AudioUnitRenderActionFlags = std::uint32_t;
inline constexpr AudioUnitRenderActionFlags kAudioUnitRenderAction_PreRender = 1u << 2;  // 4
inline constexpr AudioUnitRenderActionFlags kAudioUnitRenderAction_PostRender = 1u << 3; // 8
inline constexpr AudioUnitRenderActionFlags kAudioUnitRenderAction_OutputIsSilence = 1u << 4;

/// A render callback: mixer input callbacks and render notifications. Runs on the render
/// thread; must not allocate, lock or block.
using AURenderCallback = OSStatus (*)(void* inRefCon, AudioUnitRenderActionFlags* ioActionFlags,
                                      const AudioTimeStamp* inTimeStamp, std::uint32_t inBusNumber,
                                      std::uint32_t inNumberFrames, AudioBufferList* ioData);

struct AURenderCallbackStruct {
    AURenderCallback inputProc = nullptr;
    void* inputProcRefCon = nullptr;
};

/// Identifies a kind of unit by type, subtype and manufacturer.
struct AudioComponentDescription {
    OSType componentType = 0;
    OSType componentSubType = 0;
    OSType componentManufacturer = 0;
    std::uint32_t componentFlags = 0;
    std::uint32_t componentFlagsMask = 0;

    friend bool operator==(const AudioComponentDescription&,
                           const AudioComponentDescription&) = default;
};

} // namespace vell
