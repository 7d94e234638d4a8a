#pragma once

namespace Veltro::Plinth {

/// Restores the calling thread's last system error when it goes; bodies in Error_linux.cpp and Error_win.cpp.
class CLastErrorKeeper {
public:
    CLastErrorKeeper();
    ~CLastErrorKeeper();
    CLastErrorKeeper(const CLastErrorKeeper&) = delete;
    CLastErrorKeeper& operator=(const CLastErrorKeeper&) = delete;

private:
    int m_error;
};

}  // namespace Veltro::Plinth
