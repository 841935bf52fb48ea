#include "methods/KaEstMinCurvature.h"

double KaEstMinCurvature::EstimateNode(double, double) { return BlankValue(); }
