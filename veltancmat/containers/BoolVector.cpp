#include "veltancmat/containers/BoolVector.h"

BoolVector::~BoolVector() = default;
