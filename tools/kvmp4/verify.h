// `kvmp4 verify`: a strict judge of the structure of MP4 and MOV files, whoever wrote them. Reads
// the file by itself: nothing of the library and nothing of FFmpeg is asked.
#pragma once

#include "box_tree.h"
#include "movie.h"

#include <string>

struct VerifyOptions {
    std::string file;
    bool tablesOnly = false;  // the samples' bytes are not read
    bool json = false;
    bool verbose = false;  // notes, too
};

// Prints what it finds and returns the exit code.
int Verify(const VerifyOptions& options);

// All that verify finds; false for something that is no box file.
bool Judge(ByteSource& source, bool tablesOnly, Findings& findings);

// ---- Its parts

// Boxes that are missing, unknown, doubled, misplaced, of a wrong version or length; fields that
// have fixed values or stand for themselves. In verify_boxes.cpp.
void VerifyBoxes(ByteSource& source, const Box& tree, Findings& findings);
// Tables against each other, times against durations, where the samples lie. In verify_tracks.cpp.
void VerifyTracks(ByteSource& source, const Box& tree, const Movie& movie, Findings& findings);
// Sample descriptions against the streams they describe. In verify_codecs.cpp.
void VerifyDescriptions(ByteSource& source, const Movie& movie, Findings& findings);
// The bytes of the samples. In verify_samples.cpp.
void VerifySamples(ByteSource& source, const Movie& movie, Findings& findings);
