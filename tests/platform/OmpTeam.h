#pragma once

#include <omp.h>

// A fixed OpenMP team for the scope, dynamic adjustment off so that a busy
// machine cannot hand a parallel pass fewer threads than a test asks for;
// the previous settings come back at the end of the scope.
class OmpTeam {
public:
    explicit OmpTeam(int threads) : m_saved(omp_get_max_threads()), m_dynamic(omp_get_dynamic()) { Use(threads); }
    ~OmpTeam()
    {
        omp_set_num_threads(m_saved);
        omp_set_dynamic(m_dynamic);
    }
    OmpTeam(const OmpTeam&) = delete;
    OmpTeam& operator=(const OmpTeam&) = delete;

    // Another team size within the same scope.
    void Use(int threads) const
    {
        omp_set_dynamic(0);
        omp_set_num_threads(threads);
    }

private:
    int m_saved;
    int m_dynamic;
};
