<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>HexParser</name>
    <message>
        <source>Invalid hex character at position %1.</source>
        <translation>位置 %1 处的十六进制字符无效。</translation>
    </message>
    <message>
        <source>Hex input must contain complete bytes.</source>
        <translation>十六进制输入必须由完整的字节组成。</translation>
    </message>
</context>
<context>
    <name>SendChecksum</name>
    <message>
        <source>None</source>
        <translation>无</translation>
    </message>
    <message>
        <source>Checksum-8 (SUM)</source>
        <translation>Checksum-8 (SUM，累加和)</translation>
    </message>
    <message>
        <source>XOR (BCC)</source>
        <translation>XOR (BCC，异或校验)</translation>
    </message>
    <message>
        <source>CRC-8</source>
        <translation>CRC-8</translation>
    </message>
    <message>
        <source>CRC-16/MODBUS</source>
        <translation>CRC-16/MODBUS</translation>
    </message>
    <message>
        <source>CRC-32</source>
        <translation>CRC-32</translation>
    </message>
</context>
</TS>
