<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>ControlLineLights</name>
    <message>
        <source>Break</source>
        <translation>Break</translation>
    </message>
    <message>
        <source>Lights while data is being sent or received</source>
        <translation>收发数据时点亮</translation>
    </message>
    <message>
        <source>Click to toggle the DTR output</source>
        <translation>点击切换 DTR 输出</translation>
    </message>
    <message>
        <source>Click to toggle the RTS output</source>
        <translation>点击切换 RTS 输出</translation>
    </message>
    <message>
        <source>Click to send a serial break (hold for longer)</source>
        <translation>点击发送串口 Break 信号（按住可延长）</translation>
    </message>
    <message>
        <source>RTS is driven by RTS/CTS flow control and cannot be set by hand.</source>
        <translation>RTS 由 RTS/CTS 流控驱动，无法手动设置。</translation>
    </message>
    <message>
        <source>Control lines belong to a serial port. This connection does not have one.</source>
        <translation>控制线属于串口，此连接没有串口。</translation>
    </message>
    <message>
        <source>The remote port is left under its own configuration. Clear "Keep the remote port's own config" to drive RTS, DTR and Break from here.</source>
        <translation>远程端口保持其自身配置。取消勾选“保留远程端口自身的配置”后，即可在此控制 RTS、DTR 和 Break。</translation>
    </message>
    <message>
        <source>A file transfer is using this port. Changing the control lines would interrupt it.</source>
        <translation>文件传输正在使用此端口，更改控制线会中断传输。</translation>
    </message>
</context>
<context>
    <name>LogWriter</name>
    <message>
        <source>Please input correct log file name!</source>
        <translation>请输入正确的日志文件名！</translation>
    </message>
    <message>
        <source>Log path is a directory, not a file: %1</source>
        <translation>日志路径是一个文件夹，而不是文件：%1</translation>
    </message>
    <message>
        <source>Could not create log directory '%1'</source>
        <translation>无法创建日志文件夹“%1”</translation>
    </message>
    <message>
        <source>Could not open log file '%1': %2</source>
        <translation>无法打开日志文件“%1”：%2</translation>
    </message>
    <message>
        <source>Could not rotate log file '%1': %2</source>
        <translation>无法轮转日志文件“%1”：%2</translation>
    </message>
    <message>
        <source>Current log file does not exist.</source>
        <translation>当前日志文件不存在。</translation>
    </message>
    <message>
        <source>Could not open current log file.</source>
        <translation>无法打开当前日志文件。</translation>
    </message>
</context>
<context>
    <name>ReceiveFindBar</name>
    <message>
        <source>Find in received data</source>
        <translation>在接收数据中查找</translation>
    </message>
    <message>
        <source>Match case</source>
        <translation>区分大小写</translation>
    </message>
    <message>
        <source>Find previous (Shift+F3)</source>
        <translation>查找上一个 (Shift+F3)</translation>
    </message>
    <message>
        <source>Find next (F3)</source>
        <translation>查找下一个 (F3)</translation>
    </message>
    <message>
        <source>Close the find bar (Esc)</source>
        <translation>关闭查找栏 (Esc)</translation>
    </message>
    <message>
        <source>No matches</source>
        <translation>无匹配</translation>
    </message>
    <message>
        <source>%1 of %2</source>
        <translation>第 %1 个，共 %2 个</translation>
    </message>
</context>
<context>
    <name>WireTextCodec</name>
    <message>
        <source>The character '%1' cannot be encoded as %2. Change the encoding or edit the message.</source>
        <translation>字符“%1”无法用 %2 编码。请更换编码或修改消息。</translation>
    </message>
    <message>
        <source>This message cannot be encoded as %1. Change the encoding or edit the message.</source>
        <translation>此消息无法用 %1 编码。请更换编码或修改消息。</translation>
    </message>
</context>
<context>
    <name>WireTextCodecRegistry</name>
    <message>
        <source>The text encoding "%1" is not available on this system.</source>
        <translation>本系统不支持文本编码“%1”。</translation>
    </message>
</context>
</TS>