#pragma once

#include <Ravelo/Defs.h>

namespace Veltro::Ravelo {

class CSockAddr;

/// Base of every socket object: owns one system socket.
class RAVELO_API CSock {
public:
    CSock();
    virtual ~CSock();

    int GetHandle() const;
    unsigned int GetType() const;
    bool IsValid() const;
    bool GetBlockOpt() const;

    int Attach(int fd);
    int Detach();
    int Close();
    void SetBlockOpt(bool block);
    int GetLocalAddr(CSockAddr* addr);
    int GetRemoteAddr(CSockAddr* addr);

protected:
    CSock(int fd, unsigned int type);
    int set_block_opt();

    int m_fd;
    unsigned int m_type;
    bool m_block_opt;
};

}  // namespace Veltro::Ravelo
