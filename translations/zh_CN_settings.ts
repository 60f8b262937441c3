<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>ConnectionSettingsWidget</name>
    <message>
        <source>Default (COM2)</source>
        <translation>默认 (COM2)</translation>
    </message>
    <message>
        <source>A serial port of this computer (a path such as /dev/ttyUSB0 can be typed), or a network connection</source>
        <translation>本机的串口（可直接输入路径，如 /dev/ttyUSB0），或网络连接</translation>
    </message>
    <message>
        <source>Port</source>
        <translation>端口</translation>
    </message>
    <message>
        <source>TCP Client</source>
        <translation>TCP 客户端</translation>
    </message>
    <message>
        <source>TCP Server</source>
        <translation>TCP 服务器</translation>
    </message>
    <message>
        <source>UDP Client</source>
        <translation>UDP 客户端</translation>
    </message>
    <message>
        <source>UDP Server</source>
        <translation>UDP 服务器</translation>
    </message>
    <message>
        <source>Mode</source>
        <translation>模式</translation>
    </message>
    <message>
        <source>Host</source>
        <translation>主机</translation>
    </message>
    <message>
        <source>Listen on</source>
        <translation>监听地址</translation>
    </message>
    <message>
        <source>Remote port</source>
        <translation>远程端口</translation>
    </message>
    <message>
        <source>Local port</source>
        <translation>本地端口</translation>
    </message>
    <message>
        <source>Custom</source>
        <translation>自定义</translation>
    </message>
    <message>
        <source>Baudrate</source>
        <translation>波特率</translation>
    </message>
    <message>
        <source>Data Bits</source>
        <translation>数据位</translation>
    </message>
    <message>
        <source>None</source>
        <translation>无</translation>
    </message>
    <message>
        <source>Even</source>
        <translation>偶校验</translation>
    </message>
    <message>
        <source>Odd</source>
        <translation>奇校验</translation>
    </message>
    <message>
        <source>Mark</source>
        <translation>标记校验</translation>
    </message>
    <message>
        <source>Space</source>
        <translation>空格校验</translation>
    </message>
    <message>
        <source>Parity</source>
        <translation>校验位</translation>
    </message>
    <message>
        <source>Stop Bits</source>
        <translation>停止位</translation>
    </message>
    <message>
        <source>RTS/CTS</source>
        <translation>RTS/CTS</translation>
    </message>
    <message>
        <source>XON/XOFF</source>
        <translation>XON/XOFF</translation>
    </message>
    <message>
        <source>Flow Type</source>
        <translation>流控</translation>
    </message>
    <message>
        <source>Keep the remote port&apos;s own config</source>
        <translation>保留远程端口自身的配置</translation>
    </message>
    <message>
        <source>Computer</source>
        <translation>计算机</translation>
    </message>
    <message>
        <source>Shared port</source>
        <translation>共享端口</translation>
    </message>
    <message>
        <source>Share key</source>
        <translation>共享密钥</translation>
    </message>
    <message>
        <source>TCP/UDP</source>
        <translation>TCP/UDP</translation>
    </message>
    <message>
        <source>Remote Serial (RFC 2217)</source>
        <translation>远程串口 (RFC 2217)</translation>
    </message>
    <message>
        <source>Remote Serial (Live Relay)</source>
        <translation>远程串口 (实时中继)</translation>
    </message>
</context>
</TS>
