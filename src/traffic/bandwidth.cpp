#include "traffic/bandwidth.h"

uint32_t bandwidthInterval = 0;
int64_t nextBandwidthTime = 0;

// Sampling arrives with traffic accounting; until then rates stay 0.
void getAndCalcLanHostCurrBandwidth(uint8_t /*enable*/, uint8_t /*force*/) {}
