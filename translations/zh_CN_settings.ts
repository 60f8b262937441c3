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
        <source>TCP/UDP</source>
        <translation>网络 (TCP/UDP)</translation>
    </message>
    <message>
        <source>Remote Serial (RFC 2217)</source>
        <translation>远程串口 (RFC 2217)</translation>
    </message>
    <message>
        <source>Remote Serial (Live Relay)</source>
        <translation>远程串口 (实时中继)</translation>
    </message>
    <message>
        <source>Any</source>
        <translation>任意地址</translation>
    </message>
    <message>
        <source>AnyIPv4</source>
        <translation>任意 IPv4 地址</translation>
    </message>
    <message>
        <source>LocalHost</source>
        <translation>仅本机</translation>
    </message>
    <message>
        <source>LocalHostIPv6</source>
        <translation>仅本机 (IPv6)</translation>
    </message>
    <message>
        <source>Choose…</source>
        <translation>选择…</translation>
    </message>
    <message>
        <source>None chosen yet</source>
        <translation>尚未选择</translation>
    </message>
</context>
<context>
    <name>OptionBoxes</name>
    <message>
        <source>Text</source>
        <translation>文本</translation>
    </message>
    <message>
        <source>Hex</source>
        <translation>十六进制</translation>
    </message>
    <message>
        <source>None</source>
        <translation>无</translation>
    </message>
    <message>
        <source>ms</source>
        <translation>毫秒</translation>
    </message>
    <message>
        <source>s</source>
        <translation>秒</translation>
    </message>
</context>
<context>
    <name>PortSettingsDialog</name>
    <message>
        <source>Settings</source>
        <translation>设置</translation>
    </message>
    <message>
        <source>Connection</source>
        <translation>连接</translation>
    </message>
    <message>
        <source>Display</source>
        <translation>显示</translation>
    </message>
    <message>
        <source>Data Log</source>
        <translation>数据日志</translation>
    </message>
    <message>
        <source>Restore Default Settings</source>
        <translation>恢复默认设置</translation>
    </message>
    <message>
        <source>Bold</source>
        <translation>粗体</translation>
    </message>
    <message>
        <source>Font</source>
        <translation>字体</translation>
    </message>
    <message>
        <source>Received text colour</source>
        <translation>接收文本颜色</translation>
    </message>
    <message>
        <source>Sent text colour</source>
        <translation>发送文本颜色</translation>
    </message>
    <message>
        <source>Timestamp colour</source>
        <translation>时间戳颜色</translation>
    </message>
    <message>
        <source>Receive timestamp</source>
        <translation>接收时间戳</translation>
    </message>
    <message>
        <source>Send timestamp</source>
        <translation>发送时间戳</translation>
    </message>
    <message>
        <source>Display buffer</source>
        <translation>显示缓冲区</translation>
    </message>
    <message>
        <source>Show the TX/RX and control line indicators</source>
        <translation>显示 TX/RX 和控制线指示灯</translation>
    </message>
    <message>
        <source>Save received and sent data to a log file</source>
        <translation>将接收和发送的数据保存到日志文件</translation>
    </message>
    <message>
        <source>...</source>
        <translation>...</translation>
    </message>
    <message>
        <source>Log Folder</source>
        <translation>日志文件夹</translation>
    </message>
    <message>
        <source>Folder</source>
        <translation>文件夹</translation>
    </message>
    <message>
        <source>%S port, %Y year, %M month, %D day</source>
        <translation>%S 端口，%Y 年，%M 月，%D 日</translation>
    </message>
    <message>
        <source>File name</source>
        <translation>文件名</translation>
    </message>
    <message>
        <source>Timestamps</source>
        <translation>时间戳</translation>
    </message>
    <message>
        <source>%h hours, %m minutes, %s seconds, %z milliseconds</source>
        <translation>%h 时，%m 分，%s 秒，%z 毫秒</translation>
    </message>
    <message>
        <source>Start a new file after</source>
        <translation>文件达到此大小后新建文件</translation>
    </message>
    <message>
        <source> MiB</source>
        <translation> MiB</translation>
    </message>
    <message>
        <source>Rotation</source>
        <translation>轮换</translation>
    </message>
    <message>
        <source>Start a new file every day at</source>
        <translation>每天在此时间新建文件</translation>
    </message>
    <message>
        <source>Add the hour to rotated file names</source>
        <translation>在轮换的文件名中加入小时</translation>
    </message>
    <message>
        <source>All connection, receive, send, log, display and Quick Settings options of every port return to their defaults.
Your account, saved settings files and log files are not changed.
Active connections are stopped when you press OK; Cancel changes nothing.</source>
        <translation>所有端口的连接、接收、发送、日志、显示和快速设置选项都将恢复为默认值。
您的账户、已保存的设置文件和日志文件不会改变。
按“确定”后活动连接将被停止；按“取消”则不做任何更改。</translation>
    </message>
    <message>
        <source>Receive</source>
        <translation>接收</translation>
    </message>
    <message>
        <source>Send</source>
        <translation>发送</translation>
    </message>
    <message>
        <source>Format</source>
        <translation>格式</translation>
    </message>
    <message>
        <source>Start a new line after an idle interval</source>
        <translation>空闲一段时间后另起一行</translation>
    </message>
    <message>
        <source> ms</source>
        <translation> 毫秒</translation>
    </message>
    <message>
        <source>Auto Line Feed</source>
        <translation>自动换行</translation>
    </message>
    <message>
        <source>Display Time</source>
        <translation>显示时间</translation>
    </message>
    <message>
        <source>Prefix received data with a timestamp</source>
        <translation>在接收数据前加上时间戳</translation>
    </message>
    <message>
        <source>Hex</source>
        <translation>十六进制</translation>
    </message>
    <message>
        <source>Resend automatically at an interval</source>
        <translation>按间隔自动重发</translation>
    </message>
    <message>
        <source>Loop Send</source>
        <translation>循环发送</translation>
    </message>
    <message>
        <source>Ending appended to each send</source>
        <translation>每次发送时追加的行尾</translation>
    </message>
    <message>
        <source>Append Line Ending</source>
        <translation>追加行尾</translation>
    </message>
    <message>
        <source>Bytes sent when Enter is pressed in the receive terminal</source>
        <translation>在接收终端中按回车时发送的字节</translation>
    </message>
    <message>
        <source>Enter Sends</source>
        <translation>回车发送</translation>
    </message>
    <message>
        <source>Checksum appended to each send</source>
        <translation>每次发送时追加的校验和</translation>
    </message>
    <message>
        <source>Append Checksum</source>
        <translation>追加校验</translation>
    </message>
    <message>
        <source>Display Send</source>
        <translation>显示发送</translation>
    </message>
    <message>
        <source>Echo sent data in the display</source>
        <translation>在显示区回显已发送的数据</translation>
    </message>
    <message>
        <source>Local Echo</source>
        <translation>本地回显</translation>
    </message>
    <message>
        <source>Echo keys typed into the receive terminal</source>
        <translation>回显在接收终端中键入的按键</translation>
    </message>
    <message>
        <source>Line by Line</source>
        <translation>逐行发送</translation>
    </message>
    <message>
        <source>Send multi-line input line by line</source>
        <translation>将多行输入逐行发送</translation>
    </message>
</context>
<context>
    <name>QuickSettingsCatalog</name>
    <message>
        <source>Connection Settings</source>
        <translation>连接设置</translation>
    </message>
    <message>
        <source>Port and connection parameters</source>
        <translation>端口和连接参数</translation>
    </message>
    <message>
        <source>Baudrate</source>
        <translation>波特率</translation>
    </message>
    <message>
        <source>Serial transfer speed</source>
        <translation>串口传输速率</translation>
    </message>
    <message>
        <source>Data Bits</source>
        <translation>数据位</translation>
    </message>
    <message>
        <source>Data bits per frame</source>
        <translation>每帧的数据位</translation>
    </message>
    <message>
        <source>Parity</source>
        <translation>校验位</translation>
    </message>
    <message>
        <source>Parity check mode</source>
        <translation>奇偶校验方式</translation>
    </message>
    <message>
        <source>Stop Bits</source>
        <translation>停止位</translation>
    </message>
    <message>
        <source>Stop bits per frame</source>
        <translation>每帧的停止位</translation>
    </message>
    <message>
        <source>Flow Type</source>
        <translation>流控</translation>
    </message>
    <message>
        <source>Flow control method</source>
        <translation>流量控制方式</translation>
    </message>
    <message>
        <source>Indicator Lights</source>
        <translation>指示灯</translation>
    </message>
    <message>
        <source>Show all TX/RX and control line indicators</source>
        <translation>显示所有 TX/RX 和控制线指示灯</translation>
    </message>
    <message>
        <source>Receive Settings</source>
        <translation>接收设置</translation>
    </message>
    <message>
        <source>How received data is shown</source>
        <translation>接收数据的显示方式</translation>
    </message>
    <message>
        <source>Format</source>
        <translation>格式</translation>
    </message>
    <message>
        <source>Show received data as text or hex, and the encoding to read it with</source>
        <translation>以文本或十六进制显示接收数据，以及读取所用的编码</translation>
    </message>
    <message>
        <source>Auto Line Feed</source>
        <translation>自动换行</translation>
    </message>
    <message>
        <source>Start a new line after an idle interval</source>
        <translation>空闲一段时间后另起一行</translation>
    </message>
    <message>
        <source>Display Time</source>
        <translation>显示时间</translation>
    </message>
    <message>
        <source>Prefix received data with a timestamp</source>
        <translation>在接收数据前加上时间戳</translation>
    </message>
    <message>
        <source>Send Settings</source>
        <translation>发送设置</translation>
    </message>
    <message>
        <source>How data is sent</source>
        <translation>数据的发送方式</translation>
    </message>
    <message>
        <source>Send the input as text or hex, and the encoding to send it with</source>
        <translation>以文本或十六进制发送输入内容，以及发送所用的编码</translation>
    </message>
    <message>
        <source>Loop Send</source>
        <translation>循环发送</translation>
    </message>
    <message>
        <source>Resend automatically at an interval</source>
        <translation>按间隔自动重发</translation>
    </message>
    <message>
        <source>Append Line Ending</source>
        <translation>追加行尾</translation>
    </message>
    <message>
        <source>Ending appended to each send</source>
        <translation>每次发送时追加的行尾</translation>
    </message>
    <message>
        <source>Enter Sends</source>
        <translation>回车发送</translation>
    </message>
    <message>
        <source>Bytes sent when Enter is pressed in the receive terminal</source>
        <translation>在接收终端中按回车时发送的字节</translation>
    </message>
    <message>
        <source>Append Checksum</source>
        <translation>追加校验</translation>
    </message>
    <message>
        <source>Checksum appended to each send</source>
        <translation>每次发送时追加的校验和</translation>
    </message>
    <message>
        <source>Display Send</source>
        <translation>显示发送</translation>
    </message>
    <message>
        <source>Echo sent data in the display</source>
        <translation>在显示区回显已发送的数据</translation>
    </message>
    <message>
        <source>Local Echo</source>
        <translation>本地回显</translation>
    </message>
    <message>
        <source>Echo keys typed into the receive terminal</source>
        <translation>回显在接收终端中键入的按键</translation>
    </message>
    <message>
        <source>Line by Line</source>
        <translation>逐行发送</translation>
    </message>
    <message>
        <source>Send multi-line input line by line</source>
        <translation>将多行输入逐行发送</translation>
    </message>
</context>
<context>
    <name>QuickSettingsDialog</name>
    <message>
        <source>Quick Settings</source>
        <translation>快速设置</translation>
    </message>
    <message>
        <source>Choose the groups and fields to show, and arrange their order.</source>
        <translation>选择要显示的分组和字段，并调整它们的顺序。</translation>
    </message>
    <message>
        <source>Up</source>
        <translation>上移</translation>
    </message>
    <message>
        <source>Down</source>
        <translation>下移</translation>
    </message>
    <message>
        <source>Warning</source>
        <translation>警告</translation>
    </message>
    <message>
        <source>Select at least one quick settings group to show.</source>
        <translation>请至少选择一个要显示的快速设置分组。</translation>
    </message>
</context>
</TS>
