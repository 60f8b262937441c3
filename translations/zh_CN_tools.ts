<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>AsciiCode</name>
    <message>
        <source>\0 Null character</source>
        <translation>\0 空字符</translation>
    </message>
    <message>
        <source>Start of Header</source>
        <translation>标题开始</translation>
    </message>
    <message>
        <source>Start of Text</source>
        <translation>正文开始</translation>
    </message>
    <message>
        <source>End of Text</source>
        <translation>正文结束</translation>
    </message>
    <message>
        <source>End of Transmission</source>
        <translation>传输结束</translation>
    </message>
    <message>
        <source>Enquiry</source>
        <translation>询问</translation>
    </message>
    <message>
        <source>Acknowledgment</source>
        <translation>确认</translation>
    </message>
    <message>
        <source>\a Bell</source>
        <translation>\a 响铃</translation>
    </message>
    <message>
        <source>\b Backspace</source>
        <translation>\b 退格</translation>
    </message>
    <message>
        <source>\t Horizontal Tab</source>
        <translation>\t 水平制表符</translation>
    </message>
    <message>
        <source>\n Line feed</source>
        <translation>\n 换行</translation>
    </message>
    <message>
        <source>\v Vertical Tab</source>
        <translation>\v 垂直制表符</translation>
    </message>
    <message>
        <source>\f Form feed</source>
        <translation>\f 换页</translation>
    </message>
    <message>
        <source>\r Carriage return</source>
        <translation>\r 回车</translation>
    </message>
    <message>
        <source>Shift Out</source>
        <translation>移出</translation>
    </message>
    <message>
        <source>Shift In</source>
        <translation>移入</translation>
    </message>
    <message>
        <source>Data Link Escape</source>
        <translation>数据链路转义</translation>
    </message>
    <message>
        <source>Device Control 1 (oft. XON)</source>
        <translation>设备控制 1（常作 XON）</translation>
    </message>
    <message>
        <source>Device Control 2</source>
        <translation>设备控制 2</translation>
    </message>
    <message>
        <source>Device Control 3 (oft. XOFF)</source>
        <translation>设备控制 3（常作 XOFF）</translation>
    </message>
    <message>
        <source>Device Control 4</source>
        <translation>设备控制 4</translation>
    </message>
    <message>
        <source>Negative Acknowledgement</source>
        <translation>否定应答</translation>
    </message>
    <message>
        <source>Synchronous idle</source>
        <translation>同步空闲</translation>
    </message>
    <message>
        <source>End of Transmission Block</source>
        <translation>传输块结束</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>取消</translation>
    </message>
    <message>
        <source>End of Medium</source>
        <translation>介质结束</translation>
    </message>
    <message>
        <source>Substitute</source>
        <translation>替换</translation>
    </message>
    <message>
        <source>\e Escape</source>
        <translation>\e 转义</translation>
    </message>
    <message>
        <source>File Separator</source>
        <translation>文件分隔符</translation>
    </message>
    <message>
        <source>Group Separator</source>
        <translation>组分隔符</translation>
    </message>
    <message>
        <source>Record Separator</source>
        <translation>记录分隔符</translation>
    </message>
    <message>
        <source>Unit Separator</source>
        <translation>单元分隔符</translation>
    </message>
    <message>
        <source>ASCII Code Chart</source>
        <translation>ASCII 码表</translation>
    </message>
    <message>
        <source>Binary</source>
        <translation>二进制</translation>
    </message>
    <message>
        <source>Decimal</source>
        <translation>十进制</translation>
    </message>
    <message>
        <source>Hex</source>
        <translation>十六进制</translation>
    </message>
    <message>
        <source>Abbr/Glyph</source>
        <translation>缩写/字符</translation>
    </message>
    <message>
        <source>Description</source>
        <translation>说明</translation>
    </message>
    <message>
        <source>Space</source>
        <translation>空格</translation>
    </message>
    <message>
        <source>Delete</source>
        <translation>删除</translation>
    </message>
</context>
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
    <name>ModbusBuilderDialog</name>
    <message>
        <source>Modbus Request Builder</source>
        <translation>Modbus 请求生成器</translation>
    </message>
    <message>
        <source>Modbus RTU</source>
        <translation>Modbus RTU</translation>
    </message>
    <message>
        <source>Modbus ASCII</source>
        <translation>Modbus ASCII</translation>
    </message>
    <message>
        <source>Protocol</source>
        <translation>协议</translation>
    </message>
    <message>
        <source>0 is the broadcast address</source>
        <translation>0 为广播地址</translation>
    </message>
    <message>
        <source>Slave ID</source>
        <translation>从站 ID</translation>
    </message>
    <message>
        <source>Function</source>
        <translation>功能码</translation>
    </message>
    <message>
        <source>Start address</source>
        <translation>起始地址</translation>
    </message>
    <message>
        <source>Quantity</source>
        <translation>数量</translation>
    </message>
    <message>
        <source>ON  (FF 00)</source>
        <translation>ON  (FF 00)</translation>
    </message>
    <message>
        <source>OFF (00 00)</source>
        <translation>OFF (00 00)</translation>
    </message>
    <message>
        <source>Coil state</source>
        <translation>线圈状态</translation>
    </message>
    <message>
        <source>Values</source>
        <translation>数值</translation>
    </message>
    <message>
        <source>Request frame</source>
        <translation>请求帧</translation>
    </message>
    <message>
        <source>HEX</source>
        <translation>HEX</translation>
    </message>
    <message>
        <source>ASCII</source>
        <translation>ASCII</translation>
    </message>
    <message>
        <source>Copy HEX</source>
        <translation>复制 HEX</translation>
    </message>
    <message>
        <source>Insert to Send Area</source>
        <translation>插入到发送区</translation>
    </message>
    <message>
        <source>Close</source>
        <translation>关闭</translation>
    </message>
    <message>
        <source>Note: this port appends a checksum on send; the Modbus frame already includes one.</source>
        <translation>注意：此端口发送时会追加校验；该 Modbus 帧已包含校验。</translation>
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
    <message numerus="yes">
        <source>A frame of %n byte(s) is too short.</source>
        <translation>
            <numerusform>%n 字节的帧太短。</numerusform>
        </translation>
    </message>
    <message>
        <source>CRC mismatch: the frame says %1, its bytes give %2.</source>
        <translation>CRC 不符：帧中为 %1，按其字节计算为 %2。</translation>
    </message>
    <message>
        <source>Not an ASCII frame: it must be &quot;:&quot;, pairs of hex digits and CR LF.</source>
        <translation>不是 ASCII 帧：必须由“:”、成对的十六进制数字和 CR LF 组成。</translation>
    </message>
    <message>
        <source>LRC mismatch: the frame says %1, its bytes give %2.</source>
        <translation>LRC 不符：帧中为 %1，按其字节计算为 %2。</translation>
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
<context>
    <name>ToolBox</name>
    <message>
        <source>ToolBox</source>
        <translation>工具箱</translation>
    </message>
    <message>
        <source>Converter</source>
        <translation>转换器</translation>
    </message>
    <message>
        <source>CRC Calculator</source>
        <translation>CRC 计算器</translation>
    </message>
    <message>
        <source>Hex to Text</source>
        <translation>十六进制转文本</translation>
    </message>
    <message>
        <source>Text to Hex</source>
        <translation>文本转十六进制</translation>
    </message>
    <message>
        <source>Always UTF-8. This tool is independent of the encoding a port is configured with.</source>
        <translation>始终使用 UTF-8。本工具与端口所配置的编码无关。</translation>
    </message>
    <message>
        <source>Copy Output</source>
        <translation>复制输出</translation>
    </message>
    <message>
        <source>Input</source>
        <translation>输入</translation>
    </message>
    <message>
        <source>Output</source>
        <translation>输出</translation>
    </message>
    <message>
        <source>Text (UTF-8)</source>
        <translation>文本 (UTF-8)</translation>
    </message>
    <message>
        <source>Hex</source>
        <translation>十六进制</translation>
    </message>
    <message>
        <source>Load File...</source>
        <translation>载入文件...</translation>
    </message>
    <message>
        <source>Calculate over the bytes of a file</source>
        <translation>对文件的字节进行计算</translation>
    </message>
    <message>
        <source>Input format</source>
        <translation>输入格式</translation>
    </message>
    <message>
        <source>Parameters</source>
        <translation>参数</translation>
    </message>
    <message>
        <source>Reflect input</source>
        <translation>输入反转</translation>
    </message>
    <message>
        <source>Reflect output</source>
        <translation>输出反转</translation>
    </message>
    <message>
        <source>Algorithm</source>
        <translation>算法</translation>
    </message>
    <message>
        <source>Width</source>
        <translation>宽度</translation>
    </message>
    <message>
        <source>Polynomial (hex)</source>
        <translation>多项式 (十六进制)</translation>
    </message>
    <message>
        <source>Initial value (hex)</source>
        <translation>初始值 (十六进制)</translation>
    </message>
    <message>
        <source>Final XOR (hex)</source>
        <translation>结果异或值 (十六进制)</translation>
    </message>
    <message>
        <source>Result</source>
        <translation>结果</translation>
    </message>
    <message>
        <source>Dec</source>
        <translation>十进制</translation>
    </message>
    <message>
        <source>Oct</source>
        <translation>八进制</translation>
    </message>
    <message>
        <source>Bin</source>
        <translation>二进制</translation>
    </message>
    <message>
        <source>Copy Value</source>
        <translation>复制数值</translation>
    </message>
    <message>
        <source>Big-endian</source>
        <translation>大端序</translation>
    </message>
    <message>
        <source>Little-endian</source>
        <translation>小端序</translation>
    </message>
    <message>
        <source>Copy Bytes</source>
        <translation>复制字节</translation>
    </message>
    <message>
        <source>Base</source>
        <translation>进制</translation>
    </message>
    <message>
        <source>Wire bytes</source>
        <translation>线路字节</translation>
    </message>
    <message>
        <source>Byte order</source>
        <translation>字节序</translation>
    </message>
    <message>
        <source>Insert Frame into Send</source>
        <translation>将帧插入发送区</translation>
    </message>
    <message>
        <source>Calculate</source>
        <translation>计算</translation>
    </message>
    <message>
        <source>Pasted text of %1 characters, kept out of view. Type or paste to replace it.</source>
        <translation>已粘贴 %1 个字符的文本，未显示。输入或粘贴可替换它。</translation>
    </message>
    <message>
        <source>Cannot open %1: %2</source>
        <translation>无法打开 %1：%2</translation>
    </message>
    <message>
        <source>%1 is larger than %2 MiB and was not loaded.</source>
        <translation>%1 大于 %2 MiB，未载入。</translation>
    </message>
    <message>
        <source>Cannot read %1: %2</source>
        <translation>无法读取 %1：%2</translation>
    </message>
    <message>
        <source>File %1: %2 bytes, hashed as they are. Type or paste to replace it.</source>
        <translation>文件 %1：%2 字节，按原样计算。输入或粘贴可替换它。</translation>
    </message>
    <message>
        <source>Load File</source>
        <translation>载入文件</translation>
    </message>
    <message>
        <source>Note: this port appends a checksum on send; the inserted frame already includes its CRC.</source>
        <translation>注意：此端口发送时会追加校验；插入的帧已包含其 CRC。</translation>
    </message>
    <message>
        <source>The input is larger than %1 KiB: too large to insert into a send box.</source>
        <translation>输入大于 %1 KiB：太大，无法插入发送区。</translation>
    </message>
</context>
</TS>
