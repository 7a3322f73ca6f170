// Small streams from FFmpeg's encoders, made anew in each run: a moving picture and a tone.
#pragma once

#include "support/boxes.h"

#include <vector>

namespace kvtest {

enum class Codec { H264, Hevc, ProRes };

constexpr int kPictureWidth = 96;
constexpr int kPictureHeight = 64;
constexpr int kAudioRate = 48000;
constexpr int kAudioFrame = 1024;  // samples of each frame

// Access units in Annex B form with their parameter sets, or ProRes pictures; no B-frames.
const std::vector<Bytes>& EncodedVideo(Codec codec);
// Raw AAC LC frames of two channels.
const std::vector<Bytes>& EncodedAudio();
// The same with an ADTS header of 7 bytes in front of each.
const std::vector<Bytes>& EncodedAdts();

// The units of an Annex B frame, without their start codes.
std::vector<Bytes> SplitUnits(const Bytes& frame);
// The frame as the file holds it: a length of 4 bytes in front of each unit.
Bytes WithLengths(const Bytes& frame);

}  // namespace kvtest
