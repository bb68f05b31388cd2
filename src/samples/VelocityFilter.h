// The velocity filters over the neighbours of a sample.
#ifndef ORBAPI_VELOCITYFILTER_H
#define ORBAPI_VELOCITYFILTER_H

#include "items.h"

namespace velocity {

// Neighbour arrays: the sample at kCentre, k steps earlier at kCentre - k,
// k steps later at kCentre + k.
constexpr int kNeighbours = 39;
constexpr int kCentre = kNeighbours / 2;

// How many neighbours on each side the filter reads at a rate.
int halfWidth(bool highSpeed, float rate);

// Fills the twelve velocity pairs of centre (an eye not recorded keeps
// what it has) from neighbours[kCentre - h .. kCentre + h], h = halfWidth;
// a missing neighbour is null.
void fill(Sample& centre, Sample* const* neighbours, bool highSpeed, int rate);

// One velocity pair of one eye and position kind into vx[eye], vy[eye],
// from `count` neighbours centred on neighbours[count / 2].
void one(bool fast, int kind, int rate, bool highSpeed, Sample* const* neighbours, int count, int eye,
         float* vx, float* vy);

// The standard and the high-speed filter over the series p[0..n-1],
// centred on p[n / 2]: the smoothed velocity, or the fast one.
double standard(bool fast, const float* p, int n, float resolution, float rate);
double highSpeed(bool fast, const float* p, int n, float resolution, float rate);

} // namespace velocity

#endif
