<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>CrcCalculator</name>
    <message>
        <source>%1 must be a hexadecimal value that fits the width.</source>
        <translation>%1 必须是不超出宽度的十六进制数值。</translation>
    </message>
    <message>
        <source>Width must be between 1 and 64.</source>
        <translation>宽度必须在 1 到 64 之间。</translation>
    </message>
    <message>
        <source>Polynomial</source>
        <translation>多项式</translation>
    </message>
    <message>
        <source>Polynomial must not be zero.</source>
        <translation>多项式不能为零。</translation>
    </message>
    <message>
        <source>Initial value</source>
        <translation>初始值</translation>
    </message>
    <message>
        <source>Final XOR</source>
        <translation>结果异或值</translation>
    </message>
</context>
<context>
    <name>CrcCatalogue</name>
    <message>
        <source>Custom</source>
        <translation>自定义</translation>
    </message>
</context>
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
    <name>ModbusCodec</name>
    <message>
        <source>%1 must be between %2 and %3.</source>
        <translation>%1 必须在 %2 到 %3 之间。</translation>
    </message>
    <message>
        <source>Address %1 plus count %2 exceeds the 65536 address space.</source>
        <translation>地址 %1 加数量 %2 超出了 65536 的地址空间。</translation>
    </message>
    <message>
        <source>01  Read Coils</source>
        <translation>01  读线圈</translation>
    </message>
    <message>
        <source>Coil count</source>
        <translation>线圈数量</translation>
    </message>
    <message>
        <source>02  Read Discrete Inputs</source>
        <translation>02  读离散输入</translation>
    </message>
    <message>
        <source>03  Read Holding Registers</source>
        <translation>03  读保持寄存器</translation>
    </message>
    <message>
        <source>Register count</source>
        <translation>寄存器数量</translation>
    </message>
    <message>
        <source>04  Read Input Registers</source>
        <translation>04  读输入寄存器</translation>
    </message>
    <message>
        <source>05  Write Single Coil</source>
        <translation>05  写单个线圈</translation>
    </message>
    <message>
        <source>06  Write Single Register</source>
        <translation>06  写单个寄存器</translation>
    </message>
    <message>
        <source>0F  Write Multiple Coils</source>
        <translation>0F  写多个线圈</translation>
    </message>
    <message>
        <source>10  Write Multiple Registers</source>
        <translation>10  写多个寄存器</translation>
    </message>
    <message>
        <source>Slave ID must be between 0 and 247.</source>
        <translation>从站地址必须在 0 到 247 之间。</translation>
    </message>
    <message>
        <source>Unsupported function code 0x%1.</source>
        <translation>不支持的功能码 0x%1。</translation>
    </message>
    <message>
        <source>Write Single Coil needs exactly one value.</source>
        <translation>写单个线圈需要恰好一个值。</translation>
    </message>
    <message>
        <source>Write Single Register needs exactly one value.</source>
        <translation>写单个寄存器需要恰好一个值。</translation>
    </message>
</context>
<context>
    <name>ModbusValuesParser</name>
    <message>
        <source>Coil states must be 0 or 1, got &quot;%1&quot;.</source>
        <translation>线圈状态必须为 0 或 1，实际为“%1”。</translation>
    </message>
    <message>
        <source>&quot;%1&quot; is not a 16-bit HEX value.</source>
        <translation>“%1”不是 16 位的十六进制数值。</translation>
    </message>
    <message>
        <source>Write Single Register takes exactly one value.</source>
        <translation>写单个寄存器只接受一个值。</translation>
    </message>
    <message>
        <source>Register value in HEX, e.g. 00 0A</source>
        <translation>十六进制寄存器值，例如 00 0A</translation>
    </message>
    <message>
        <source>Register values in HEX, e.g. 000A 0102</source>
        <translation>十六进制寄存器值，例如 000A 0102</translation>
    </message>
    <message>
        <source>Coil states 0/1, e.g. 1 0 1 1</source>
        <translation>线圈状态 0/1，例如 1 0 1 1</translation>
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
