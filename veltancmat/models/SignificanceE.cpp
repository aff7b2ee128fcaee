#include "veltancmat/models/SignificanceE.h"

const char* const SignificanceE::mSigNames[SignificanceE::Count] = {"R1", "R2", "R5",  "NS",  "N3", "N4",
                                                                    "U",  "NA", "RB1", "RB2", "NB1"};

std::string SignificanceE::GetSignificance(Significance s)
{
    if (s < 0 || s >= Count)
        return {};
    return mSigNames[s];
}

bool SignificanceE::IsSignificant(Significance s)
{
    return s == R1 || s == R2 || s == R5 || s == RB1 || s == RB2;
}
