/// @file
/// Everything the library offers, in one include.
///
/// Threading: see each header; in short, call the library from the main thread
/// and receive its events there, through the main queue.
#pragma once

#include <tavro/Version.hpp>
#include <tavro/VersionNumbers.hpp>
#include <tavro/analysis/R128Normalizer.hpp>
#include <tavro/analysis/TavroAnalyzer.hpp>
#include <tavro/analysis/TavroBPM.hpp>
#include <tavro/analysis/TavroLoudness.hpp>
#include <tavro/analysis/TavroVolumeNormalizer.hpp>

#include <tavro/dispatch/TavroConcurrentQueue.hpp>
#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/dispatch/TavroSerialQueue.hpp>
#include <tavro/dispatch/TavroTask.hpp>
#include <tavro/dispatch/TavroTimer.hpp>

#include <tavro/dsp/TavroCrossfeed.hpp>
#include <tavro/dsp/TavroDSP.hpp>
#include <tavro/dsp/TavroDSPBiquad.hpp>
#include <tavro/dsp/TavroDSPBitCrusher.hpp>
#include <tavro/dsp/TavroDSPDelay.hpp>
#include <tavro/dsp/TavroDSPGain.hpp>
#include <tavro/dsp/TavroDSPNode.hpp>
#include <tavro/dsp/TavroDSPRingModulator.hpp>
#include <tavro/dsp/TavroDSPSoftClip.hpp>
#include <tavro/dsp/TavroDSPStereoWidth.hpp>
#include <tavro/dsp/TavroDSPTremolo.hpp>
#include <tavro/effects/TavroEffects.hpp>
#include <tavro/engine/TavroDeviceInfo.hpp>
#include <tavro/engine/TavroEngine.hpp>
#include <tavro/engine/TavroError.hpp>
#include <tavro/TavroURL.hpp>
#include <tavro/player/TavroPlayer.hpp>
#include <tavro/sources/TavroFileSource.hpp>
#include <tavro/sources/TavroSource.hpp>
#include <tavro/stream/TavroStream.hpp>
#include <tavro/stream/TavroSync.hpp>
