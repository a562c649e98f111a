// Callbacks the tempo analysis hands to the platform; `user` is the collecting
// array or the TavroBPM.
#pragma once

#include <cstdint>

void TavroBeatCollectProc(uint32_t channel, double beatSeconds, void* user);
void TavroLiveBPMProc(uint32_t channel, float bpm, void* user);
void TavroLiveBeatProc(uint32_t channel, double beatSeconds, void* user);
