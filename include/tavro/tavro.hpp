// Everything the library offers, in one include.
//
// Threading: see each header; in short, call the library from the main thread
// and receive its events there, through the main queue.
#pragma once

#include <tavro/Version.hpp>

#include <tavro/dispatch/TavroConcurrentQueue.hpp>
#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/dispatch/TavroSerialQueue.hpp>
#include <tavro/dispatch/TavroTask.hpp>
#include <tavro/dispatch/TavroTimer.hpp>

#include <tavro/engine/TavroDeviceInfo.hpp>
#include <tavro/engine/TavroEngine.hpp>
#include <tavro/engine/TavroError.hpp>
#include <tavro/TavroURL.hpp>
#include <tavro/player/TavroPlayer.hpp>
#include <tavro/sources/TavroFileSource.hpp>
#include <tavro/sources/TavroSource.hpp>
#include <tavro/stream/TavroStream.hpp>
#include <tavro/stream/TavroSync.hpp>
