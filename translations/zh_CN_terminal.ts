<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
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