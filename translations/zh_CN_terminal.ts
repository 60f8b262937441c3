<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>ControlLineLights</name>
    <message>
        <source>Break</source>
        <translation>中断</translation>
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
        <source>The remote port is left under its own configuration. Clear &quot;Keep the remote port&apos;s own config&quot; to drive RTS, DTR and Break from here.</source>
        <translation>远程端口保持其自身配置。取消勾选“保留远程端口自身的配置”后，即可在此控制 RTS、DTR 和 Break。</translation>
    </message>
    <message>
        <source>A file transfer is using this port. Changing the control lines would interrupt it.</source>
        <translation>文件传输正在使用此端口，更改控制线会中断传输。</translation>
    </message>
    <message>
        <source>Clear To Send at the remote port</source>
        <translation>远程端口的清除发送（CTS）</translation>
    </message>
    <message>
        <source>Data Set Ready at the remote port</source>
        <translation>远程端口的数据设备就绪（DSR）</translation>
    </message>
    <message>
        <source>Ring Indicator at the remote port</source>
        <translation>远程端口的振铃指示（RI）</translation>
    </message>
    <message>
        <source>Carrier Detect at the remote port</source>
        <translation>远程端口的载波检测（CD）</translation>
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
        <source>Could not create log directory &apos;%1&apos;</source>
        <translation>无法创建日志文件夹“%1”</translation>
    </message>
    <message>
        <source>Could not open log file &apos;%1&apos;: %2</source>
        <translation>无法打开日志文件“%1”：%2</translation>
    </message>
    <message>
        <source>Could not rotate log file &apos;%1&apos;: %2</source>
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
    <message>
        <source>Could not write log file &apos;%1&apos;: %2</source>
        <translation>无法写入日志文件“%1”：%2</translation>
    </message>
    <message>
        <source>
-- %L1 bytes of log text were lost here: they could not be written in time --
</source>
        <translation>
-- 此处丢失了 %L1 字节的日志文本：未能及时写入 --
</translation>
    </message>
</context>
<context>
    <name>PortSession</name>
    <message>
        <source>A file transfer is using this port. Changing the port settings would interrupt it.</source>
        <translation>文件传输正在使用此端口，更改端口设置会中断传输。</translation>
    </message>
    <message>
        <source>The port keeps its previous settings: %1</source>
        <translation>端口保持原有设置：%1</translation>
    </message>
    <message>
        <source>A file transfer is using this port. Changing the control lines would interrupt it.</source>
        <translation>文件传输正在使用此端口，更改控制线会中断传输。</translation>
    </message>
    <message>
        <source>Could not send Break: the connection is not open.</source>
        <translation>无法发送 Break：连接未打开。</translation>
    </message>
    <message>
        <source>TCP connection RESTORED</source>
        <translation>TCP 连接已恢复</translation>
    </message>
    <message>
        <source>A file transfer is running.</source>
        <translation>文件传输正在进行。</translation>
    </message>
    <message>
        <source>Serial Port %1 OPEN FAILED</source>
        <translation>串口 %1 打开失败</translation>
    </message>
    <message>
        <source>Connecting to %1:%2 ...</source>
        <translation>正在连接 %1:%2 ...</translation>
    </message>
    <message>
        <source>Serial Port %1 lost, waiting for it to come back...</source>
        <translation>串口 %1 已断开，正在等待其恢复...</translation>
    </message>
    <message>
        <source>Reconnecting to %1:%2 ...</source>
        <translation>正在重新连接 %1:%2 ...</translation>
    </message>
    <message>
        <source>Serial Port %1 RECONNECTED</source>
        <translation>串口 %1 已重新连接</translation>
    </message>
    <message>
        <source>%1 waiting to reconnect</source>
        <translation>%1 等待重新连接</translation>
    </message>
    <message>
        <source>A file transfer is already running on this port.</source>
        <translation>此端口上已有文件传输正在进行。</translation>
    </message>
    <message>
        <source>File transfer needs an ordered, reliable connection. UDP cannot provide one.</source>
        <translation>文件传输需要有序、可靠的连接，UDP 无法提供。</translation>
    </message>
    <message>
        <source>The connection is not open.</source>
        <translation>连接未打开。</translation>
    </message>
    <message>
        <source>The view is paused. Resume it before transferring a file.</source>
        <translation>显示已暂停。请先恢复显示再传输文件。</translation>
    </message>
    <message>
        <source>No client is connected yet.</source>
        <translation>尚无客户端连接。</translation>
    </message>
    <message>
        <source>Several clients are connected. Select the one to transfer with.</source>
        <translation>已连接多个客户端。请选择要进行传输的客户端。</translation>
    </message>
    <message>
        <source>The remote peer did not accept RFC 2217 com-port control, so Break cannot be sent.</source>
        <translation>远程对端未接受 RFC 2217 串口控制，因此无法发送 Break。</translation>
    </message>
    <message>
        <source>Sent Break to the remote port; it is released when you let go.</source>
        <translation>已向远程端口发送 Break；松开按钮时解除。</translation>
    </message>
    <message>
        <source>The peer is not reading: %L1 bytes are still waiting to be sent.</source>
        <translation>对端没有读取数据：仍有 %L1 字节等待发送。</translation>
    </message>
    <message>
        <source>The data log is being written again.</source>
        <translation>数据日志已恢复写入。</translation>
    </message>
    <message>
        <source>This port is part of a bridge link. Remove the link before transferring a file.</source>
        <translation>此端口属于一个桥接链路。请先移除该链路再传输文件。</translation>
    </message>
    <message>
        <source>Live Relay carries only the data of the remote port: its control lines and Break stay with the computer that shares it.</source>
        <translation>实时中继只传送远程端口的数据：其控制线和 Break 仍由共享它的计算机掌管。</translation>
    </message>
    <message>
        <source>Waiting for the remote port %1 ...</source>
        <translation>正在等待远程端口 %1 ...</translation>
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
    <name>SerialPortWidget</name>
    <message>
        <source>A file transfer is using this port. Sending data now would corrupt it.</source>
        <translation>文件传输正在使用此端口，此时发送数据会破坏传输。</translation>
    </message>
    <message>
        <source>The connection is not open.</source>
        <translation>连接未打开。</translation>
    </message>
    <message>
        <source>Send</source>
        <translation>发送</translation>
    </message>
    <message>
        <source>Open</source>
        <translation>打开</translation>
    </message>
    <message>
        <source>All clients</source>
        <translation>所有客户端</translation>
    </message>
    <message>
        <source>Last peer heard</source>
        <translation>最近通信的对端</translation>
    </message>
    <message>
        <source>Tx: %L1 Bytes</source>
        <translation>发送: %L1 字节</translation>
    </message>
    <message>
        <source>Rx: %L1 Bytes</source>
        <translation>接收: %L1 字节</translation>
    </message>
    <message>
        <source>Find...</source>
        <translation>查找...</translation>
    </message>
    <message>
        <source>Resume</source>
        <translation>继续</translation>
    </message>
    <message>
        <source>Pause</source>
        <translation>暂停</translation>
    </message>
    <message>
        <source>Clear</source>
        <translation>清除</translation>
    </message>
    <message>
        <source>Save View As...</source>
        <translation>将显示内容另存为...</translation>
    </message>
    <message>
        <source>Save View As</source>
        <translation>将显示内容另存为</translation>
    </message>
    <message>
        <source>Text files (*.txt);;All files (*)</source>
        <translation>文本文件 (*.txt);;所有文件 (*)</translation>
    </message>
    <message>
        <source>Could not save &apos;%1&apos;: %2</source>
        <translation>无法保存“%1”：%2</translation>
    </message>
    <message>
        <source>Log Folder</source>
        <translation>日志文件夹</translation>
    </message>
    <message>
        <source>Hex</source>
        <translation>十六进制</translation>
    </message>
    <message>
        <source>Connection Settings</source>
        <translation>连接设置</translation>
    </message>
    <message>
        <source>Receive Settings</source>
        <translation>接收设置</translation>
    </message>
    <message>
        <source>Format</source>
        <translation>格式</translation>
    </message>
    <message>
        <source>Start a new line after an idle interval</source>
        <translation>空闲一段时间后换行</translation>
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
        <source>Display Send</source>
        <translation>显示发送</translation>
    </message>
    <message>
        <source>Echo sent data in the display</source>
        <translation>在显示区回显已发送的数据</translation>
    </message>
    <message>
        <source>Characters kept in the view; the oldest half goes when it is full</source>
        <translation>显示区保留的字符数；满时删除最早的一半</translation>
    </message>
    <message>
        <source>Buffer</source>
        <translation>缓冲区</translation>
    </message>
    <message>
        <source>Save to Log</source>
        <translation>保存到日志</translation>
    </message>
    <message>
        <source>Record everything the view shows into a log file</source>
        <translation>将显示区的全部内容记录到日志文件</translation>
    </message>
    <message>
        <source>Log folder</source>
        <translation>日志文件夹</translation>
    </message>
    <message>
        <source>Choose the log folder</source>
        <translation>选择日志文件夹</translation>
    </message>
    <message>
        <source>Send Settings</source>
        <translation>发送设置</translation>
    </message>
    <message>
        <source>Ending appended to each send</source>
        <translation>每次发送时追加的结束符</translation>
    </message>
    <message>
        <source>Append Line Ending</source>
        <translation>追加行结束符</translation>
    </message>
    <message>
        <source>Checksum appended to each send</source>
        <translation>每次发送时追加的校验</translation>
    </message>
    <message>
        <source>Append Checksum</source>
        <translation>追加校验</translation>
    </message>
    <message>
        <source>Bytes sent when Enter is pressed in the receive terminal</source>
        <translation>在接收终端中按回车键时发送的字节</translation>
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
        <source>Enter Sends</source>
        <translation>回车发送</translation>
    </message>
    <message>
        <source>Resend automatically at an interval</source>
        <translation>按间隔自动重复发送</translation>
    </message>
    <message>
        <source>Loop Send</source>
        <translation>循环发送</translation>
    </message>
    <message>
        <source>Line by Line</source>
        <translation>逐行发送</translation>
    </message>
    <message>
        <source>Send multi-line input line by line</source>
        <translation>将多行输入逐行发送</translation>
    </message>
    <message>
        <source>Reset the byte counters</source>
        <translation>重置字节计数</translation>
    </message>
    <message>
        <source>Pause the display; received data is kept</source>
        <translation>暂停显示；接收的数据会被保留</translation>
    </message>
    <message>
        <source>Clear the display</source>
        <translation>清空显示</translation>
    </message>
    <message>
        <source>Find in received data (Ctrl+F)</source>
        <translation>在接收数据中查找 (Ctrl+F)</translation>
    </message>
    <message>
        <source>Where the data goes</source>
        <translation>数据发往何处</translation>
    </message>
    <message>
        <source>Texts sent before; choose one to send it again</source>
        <translation>之前发送过的内容；选择一项可再次发送</translation>
    </message>
    <message>
        <source>Text to send; Ctrl+Enter sends</source>
        <translation>要发送的文本；Ctrl+Enter 发送</translation>
    </message>
    <message>
        <source>Close</source>
        <translation>关闭</translation>
    </message>
    <message>
        <source>⇄ Bridged: %1</source>
        <translation>⇄ 已桥接：%1</translation>
    </message>
    <message>
        <source>This port is part of a bridge link (Tools &gt; Bridges...): what it receives is forwarded, and file transfers are refused while the link runs.</source>
        <translation>此端口属于一个桥接链路（工具 &gt; 桥接...）：它收到的数据会被转发，链路运行期间拒绝文件传输。</translation>
    </message>
    <message>
        <source>Warning</source>
        <translation>警告</translation>
    </message>
</context>
</TS>
