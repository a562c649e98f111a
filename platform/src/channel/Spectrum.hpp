// Magnitude spectra of a block of interleaved float frames, for the FFT
// requests of BASS_ChannelGetData.
//
// The window is a periodic Hann window unless the caller asks for none.
// Magnitudes are scaled by 2 / sum(window) (DC by 1 / sum(window)), so that a
// full-scale sine centred on a bin reads 1.0 there and a constant d reads d in
// bin 0, whatever the size and the window. Bins 0 .. N/2 - 1 are returned;
// the Nyquist bin is dropped.
//
// Threading: any thread. Transforms and scratch space are kept per thread,
// made on first use for each size and reused, so a steady stream of requests
// does not allocate.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tavro::platform {

struct SpectrumRequest {
    unsigned sizeIndex = 0; // N = 256 << sizeIndex
    bool individual = false; // one spectrum per channel, interleaved
    bool noWindow = false;
    bool removeDc = false;
};

// Decodes the FFT bits of a GetData length word; false for a word that asks
// for something unsupported (unknown bits, size beyond 16384, complex output).
bool parseSpectrumRequest(uint32_t length, SpectrumRequest& req);

inline size_t spectrumSize(const SpectrumRequest& req) { return size_t(256) << req.sizeIndex; }

// `frames` holds spectrumSize(req) interleaved frames of `chans` channels
// (missing frames zero). Writes N/2 magnitudes, or chans × N/2 interleaved
// when req.individual. False only when no transform could be made.
bool computeSpectrum(const SpectrumRequest& req, const float* frames, unsigned chans, float* out);

} // namespace tavro::platform
