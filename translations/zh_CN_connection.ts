<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>ConnectionController</name>
    <message>
        <source>the port %1 is not between 1 and 65535</source>
        <translation>端口 %1 不在 1 到 65535 之间</translation>
    </message>
    <message>
        <source>TCP connect FAILED: %1</source>
        <translation>TCP 连接失败：%1</translation>
    </message>
    <message>
        <source>TCP server listen on port %1 FAILED: %2</source>
        <translation>TCP 服务器监听端口 %1 失败：%2</translation>
    </message>
    <message>
        <source>No remote port has been chosen for this connection yet.</source>
        <translation>此连接尚未选择远程端口。</translation>
    </message>
</context>
<context>
    <name>MultiClientServer</name>
    <message>
        <source>not on the address allowlist</source>
        <translation>不在地址白名单中</translation>
    </message>
    <message>
        <source>the port already has a client (exclusive mode)</source>
        <translation>该端口已有客户端（独占模式）</translation>
    </message>
</context>
<context>
    <name>Rfc2217ClientSession</name>
    <message>
        <source>The remote port accepted serial parameter control.</source>
        <translation>远程端口已接受串口参数控制。</translation>
    </message>
    <message>
        <source>The remote does not support serial parameter control; continuing as plain Telnet.</source>
        <translation>远程端不支持串口参数控制；以普通 Telnet 继续。</translation>
    </message>
    <message>
        <source>The remote is not an RFC 2217 server; continuing as transparent TCP. The handshake bytes may have reached the remote serial line.</source>
        <translation>远程端不是 RFC 2217 服务器；以透明 TCP 继续。握手字节可能已到达远程串口线路。</translation>
    </message>
    <message>
        <source>The remote port is now at %1 baud.</source>
        <translation>远程端口现在的波特率为 %1。</translation>
    </message>
    <message>
        <source>baud rate</source>
        <translation>波特率</translation>
    </message>
    <message>
        <source>data size</source>
        <translation>数据位</translation>
    </message>
    <message>
        <source>parity</source>
        <translation>校验位</translation>
    </message>
    <message>
        <source>stop size</source>
        <translation>停止位</translation>
    </message>
    <message>
        <source>control</source>
        <translation>控制</translation>
    </message>
    <message>
        <source>line state</source>
        <translation>线路状态</translation>
    </message>
    <message>
        <source>modem state</source>
        <translation>调制解调器状态</translation>
    </message>
    <message>
        <source>modem-state mask</source>
        <translation>调制解调器状态掩码</translation>
    </message>
    <message>
        <source>The remote port sent an invalid %1 value (%2); the setting is kept.</source>
        <translation>远程端口发送了无效的%1值（%2）；保留原设置。</translation>
    </message>
    <message>
        <source>overrun error</source>
        <translation>溢出错误</translation>
    </message>
    <message>
        <source>parity error</source>
        <translation>校验错误</translation>
    </message>
    <message>
        <source>framing error</source>
        <translation>帧错误</translation>
    </message>
    <message>
        <source>break detected</source>
        <translation>检测到中断信号</translation>
    </message>
    <message>
        <source>time-out error</source>
        <translation>超时错误</translation>
    </message>
    <message>
        <source>The remote port reports: %1.</source>
        <translation>远程端口报告：%1。</translation>
    </message>
</context>
<context>
    <name>SerialPortTransport</name>
    <message>
        <source>Serial Port %1 OPEN FAILED! ERROR: </source>
        <translation>串口 %1 打开失败！错误：</translation>
    </message>
    <message>
        <source>Serial Port %1 OPEN SUCCESS</source>
        <translation>串口 %1 打开成功</translation>
    </message>
    <message>
        <source>Serial Port %1 CLOSE FAILED</source>
        <translation>串口 %1 关闭失败</translation>
    </message>
    <message>
        <source>Serial Port %1 CLOSE SUCCESS</source>
        <translation>串口 %1 关闭成功</translation>
    </message>
    <message>
        <source>Failed to set %1: %2</source>
        <translation>设置 %1 失败：%2</translation>
    </message>
    <message>
        <source>RTS is managed automatically by RTS/CTS flow control</source>
        <translation>RTS 由 RTS/CTS 流控自动管理</translation>
    </message>
    <message>
        <source>Open the serial port before sending Break</source>
        <translation>请先打开串口再发送 Break</translation>
    </message>
    <message>
        <source>the port is not open</source>
        <translation>端口未打开</translation>
    </message>
    <message>
        <source>baud rate %1</source>
        <translation>波特率 %1</translation>
    </message>
    <message>
        <source>%1 data bits</source>
        <translation>%1 位数据位</translation>
    </message>
    <message>
        <source>parity</source>
        <translation>校验位</translation>
    </message>
    <message>
        <source>stop bits</source>
        <translation>停止位</translation>
    </message>
    <message>
        <source>flow control</source>
        <translation>流控</translation>
    </message>
    <message>
        <source>%1 was refused by the driver: %2</source>
        <translation>驱动拒绝了%1：%2</translation>
    </message>
    <message>
        <source>Serial Port %1 DISCONNECTED</source>
        <translation>串口 %1 已断开</translation>
    </message>
    <message>
        <source>Serial Port %1 has no control lines; DTR and RTS are left alone.</source>
        <translation>串口 %1 没有控制线，DTR 和 RTS 保持不变。</translation>
    </message>
    <message>
        <source>Break</source>
        <translation>中断信号</translation>
    </message>
</context>
<context>
    <name>StreamClientTransport</name>
    <message>
        <source>TCP connect FAILED: %1</source>
        <translation>TCP 连接失败：%1</translation>
    </message>
</context>
<context>
    <name>TcpServerTransport</name>
    <message>
        <source>Refused %1: %2</source>
        <translation>已拒绝 %1：%2</translation>
    </message>
    <message>
        <source>TCP server listen on port %1 FAILED: %2</source>
        <translation>TCP 服务器监听端口 %1 失败：%2</translation>
    </message>
    <message>
        <source>%1 is not reading: sends to all clients pass it by until it does.</source>
        <translation>%1 未在读取：发往所有客户端的数据将跳过它，直到它恢复读取。</translation>
    </message>
</context>
<context>
    <name>UdpTransport</name>
    <message>
        <source>UDP bind to port %1 FAILED: %2</source>
        <translation>UDP 绑定端口 %1 失败：%2</translation>
    </message>
    <message>
        <source>no IPv4 address</source>
        <translation>没有 IPv4 地址</translation>
    </message>
    <message>
        <source>UDP send to %1 FAILED: %2</source>
        <translation>UDP 发送到 %1 失败：%2</translation>
    </message>
    <message>
        <source>No UDP peer to reply to yet</source>
        <translation>还没有可回复的 UDP 对端</translation>
    </message>
</context>
</TS>
